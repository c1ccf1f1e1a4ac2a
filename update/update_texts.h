#pragma once

#include <string_view>

// Every text the update screens, the menu bar and the prompts show, in one place. The code picks
// from this table; it never builds a user text of its own.
namespace norvik::update_texts {

// Version-check prompt buttons, when the backend sends none.
inline constexpr std::string_view kUpdateNow = "Обновить сейчас";
inline constexpr std::string_view kNotNow = "Не сейчас";

// Updater states.
inline constexpr std::string_view kConnecting = "Подключаемся к серверу обновлений…";
inline constexpr std::string_view kChecking = "Проверяем…";
inline constexpr std::string_view kVersionAvailable = "Доступна версия";
inline constexpr std::string_view kAvailableLabel = "Доступно:";
inline constexpr std::string_view kDownloading = "Загрузка…";
inline constexpr std::string_view kPreparing = "Подготовка обновления…";
inline constexpr std::string_view kInstalling = "Обновляем…";
inline constexpr std::string_view kRestartSoon = "Приложение перезапустится, это займёт пару секунд.";
inline constexpr std::string_view kFewMoreSeconds = "Ещё несколько секунд.";
inline constexpr std::string_view kUpToDate = "У вас последняя версия";
inline constexpr std::string_view kAvailableOnWebsite = "Обновление доступно на сайте";
inline constexpr std::string_view kWillRelaunch = "Приложение перезапустится само.";

// Updater failures.
inline constexpr std::string_view kServerUnavailable = "Сервер обновлений недоступен";
inline constexpr std::string_view kNoConnection = "Нет связи с сервером обновлений";
inline constexpr std::string_view kFileDamaged = "Файл обновления повреждён";
inline constexpr std::string_view kCancelled = "Установка отменена";
inline constexpr std::string_view kMoveToApplications = "Перенесите приложение в «Программы»";
inline constexpr std::string_view kCouldNotUpdate = "Не удалось обновить";

// Disk-image install failures, one per step.
inline constexpr std::string_view kDownloadFailed = "Не удалось скачать обновление";
inline constexpr std::string_view kDownloadNotSaved = "Не удалось сохранить загрузку";
inline constexpr std::string_view kCannotOpenImage = "Не удалось открыть загруженный файл";
inline constexpr std::string_view kNoAppInImage = "В загруженном файле нет приложения";
inline constexpr std::string_view kBadCodeSignature = "Загруженный файл повреждён (подпись)";
inline constexpr std::string_view kWrongTeam = "Файл подписан не нами — установка отменена";
inline constexpr std::string_view kAssessmentFailed = "Файл не прошёл проверку безопасности macOS";
inline constexpr std::string_view kNoAccessToApplications =
    "Не удалось установить обновление (нет доступа к «Программам»)";
inline constexpr std::string_view kCouldNotFinish = "Не удалось завершить установку обновления";

// The Linux package install's own failure (the rest are shared with the disk image's).
inline constexpr std::string_view kWrongArchitecture = "Обновление собрано для другой системы";

}  // namespace norvik::update_texts
