#pragma once

namespace norvik::testing {

// Whether this build runs under AddressSanitizer. Such builds run several times slower, and their
// processes' memory holds the sanitizer's shadow and its quarantine of freed blocks, so figures of
// resident memory say nothing about the code there.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define NORVIK_TESTING_ADDRESS_SANITIZER 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define NORVIK_TESTING_ADDRESS_SANITIZER 1
#endif

#ifdef NORVIK_TESTING_ADDRESS_SANITIZER
inline constexpr bool kUnderAddressSanitizer = true;
#else
inline constexpr bool kUnderAddressSanitizer = false;
#endif

}  // namespace norvik::testing
