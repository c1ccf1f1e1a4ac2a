#!/usr/bin/env python3
"""Plans scripts/lint's clang-tidy runs and reports their findings.

  lint_plan.py plan ROOT DATABASE WORK MODE         the first round (WORK/round1)
  lint_plan.py split ROOT DATABASE WORK FAILED DIR  the next round from the batches that did not compile
  lint_plan.py report ROOT DATABASE WORK RUNS...    prints the findings once each; exits 1 if there are any

A round is a folder with runs.txt (one "<database dir> TAB <source> TAB <log>" line per clang-tidy
run) and the batches' own compile database. WORK/files.txt lists the files to check. MODE "files"
checks each file alone; "batches" joins the sources of each top-level folder into batches (see
scripts/lint).
"""
import json, os, re, shlex, sys
from collections import OrderedDict

command, root, database, work = sys.argv[1:5]
limit, unity_size = 24, 8
entry_point = re.compile(r'^\s*(int\s+main\s*\(|BENCHMARK_MAIN\s*\(|QTEST_(GUILESS_|APPLESS_)?MAIN\s*\(|'
                         r'extern\s+"C"\s+int\s+LLVMFuzzerTestOneInput\s*\()', re.M)

entries = OrderedDict()  # each target's sources in its own order, as CMake lists them
for entry in json.load(open(database)):
    entries.setdefault(os.path.normpath(os.path.join(entry["directory"], entry["file"])), entry)


def arguments(path):
    entry = entries[path]
    return list(entry["arguments"]) if "arguments" in entry else shlex.split(entry["command"])


def target(path):
    entry = entries[path]
    found = re.search(r"CMakeFiles/([^/]+)\.dir/", entry.get("output") or " ".join(arguments(path)))
    return found.group(1) if found else path


def is_entry_point(path):
    return bool(entry_point.search(open(path, errors="replace").read()))


# Options whose value is the next argument.
with_value = {"-o", "-c", "-MF", "-MT", "-MQ", "-isystem", "-I", "-D", "-U", "-include", "-iquote", "-idirafter",
              "-x", "-Xclang", "-imacros", "-isysroot", "--sysroot", "-target"}


def write_round(folder, groups):
    """Writes one run per group: a file alone is checked with the build's database, a batch with
    its own: the union of its members' flags (include paths and definitions)."""
    os.makedirs(folder, exist_ok=True)
    batches, runs = [], []
    for number, members in enumerate(sorted(groups, key=len, reverse=True)):  # the longest first
        log = f"{folder}/{number}.log"
        if len(members) == 1:
            runs.append((os.path.dirname(database), members[0], log))
            continue
        source = f"{folder}/batch{number}.cpp"
        with open(source, "w") as out:
            out.writelines(f'#include "{path}"  // NOLINT(bugprone-suspicious-include)\n' for path in members)
        with open(f"{source}.members", "w") as out:
            out.writelines(f"{path}\n" for path in members)
        flags, seen = [], set()
        for path in members:
            args = arguments(path)[1:]
            at = 0
            while at < len(args):
                # An option and its separate value ("-isystem DIR", as Qt's include folders come)
                # stay one unit: merged apart, the value would be taken for an input file.
                unit = tuple(args[at:at + 2]) if args[at] in with_value else (args[at],)
                at += len(unit)
                if unit[0] in ("-o", "-c", "-MF", "-MT", "-MQ"):
                    continue
                if len(unit) == 1 and os.path.normpath(os.path.join(entries[path]["directory"], unit[0])) == path:
                    continue  # the member itself
                if unit not in seen:
                    seen.add(unit)
                    flags += unit
        compiler = arguments(members[0])[0]
        batches.append({"directory": entries[members[0]]["directory"], "file": source,
                        "arguments": [compiler, *flags, "-c", source]})
        runs.append((folder, source, log))
    json.dump(batches, open(f"{folder}/compile_commands.json", "w"), indent=1)
    with open(f"{folder}/runs.txt", "w") as out:
        out.writelines(f"{d}\t{s}\t{l}\n" for d, s, l in runs)


files = [os.path.normpath(os.path.join(root, line.strip())) for line in open(f"{work}/files.txt") if line.strip()]
if command == "plan":
    mode = sys.argv[5]
    outside = [path for path in files if path not in entries]
    for path in outside:
        print(f"lint: {os.path.relpath(path, root)} belongs to no target, so clang-tidy cannot check it", file=sys.stderr)
    if outside:
        sys.exit(1)
    if mode == "files":
        write_round(f"{work}/round1", [[path] for path in files])
        sys.exit(0)
    wanted = set(files)
    folders, entry_points = OrderedDict(), []
    for path in entries:
        if path not in wanted:
            continue
        if is_entry_point(path):
            entry_points.append(path)
        else:
            folders.setdefault(os.path.relpath(path, root).split("/")[0], []).append(path)
    groups, folder_of = [], []
    for folder, paths in folders.items():
        size = -(-len(paths) // -(-len(paths) // limit))  # as even as the limit allows
        for first in range(0, len(paths), size):
            groups.append(paths[first:first + size])
            folder_of.append(folder)
    # One entry point per batch, in a batch of its own folder when one is free (its includes are
    # that folder's: Qt's headers stay in the batches of gui/), else in any free batch.
    has_entry = [False] * len(groups)
    for path in entry_points:
        folder = os.path.relpath(path, root).split("/")[0]
        free = [n for n in range(len(groups)) if not has_entry[n]]
        own = [n for n in free if folder_of[n] == folder]
        if own or free:
            number = (own or free)[0]
            groups[number].append(path)
            has_entry[number] = True
        else:
            groups.append([path])
            folder_of.append(folder)
            has_entry.append(True)
    write_round(f"{work}/round1", groups)
elif command == "split":
    failed, folder = sys.argv[5], sys.argv[6]
    groups = []
    for batch in open(failed).read().split():
        members = open(f"{batch}.members").read().split()
        if len(members) <= unity_size and len({target(path) for path in members}) == 1:
            groups += [[path] for path in members]
            continue
        by_target = OrderedDict()
        for path in members:
            if is_entry_point(path):
                groups.append([path])
            else:
                by_target.setdefault(target(path), []).append(path)
        for paths in by_target.values():
            groups += [paths[first:first + unity_size] for first in range(0, len(paths), unity_size)]
    write_round(folder, groups)
elif command == "report":
    starts = re.compile(r"^(\S[^:]*:\d+:\d+: )?(error|warning): ")
    noise = re.compile(r"^(\d+ (warning|error)s?( and \d+ (warning|error)s?)? generated\.|Error while processing .*)$")
    findings = OrderedDict()  # a header's finding comes from every batch that includes it: print it once
    for runs in sorted(sys.argv[5:]):
        for line in open(runs):
            _, source, log = line.rstrip("\n").split("\t")
            if not os.path.exists(log):
                continue  # a batch that did not compile: its files were checked in a later round
            lines = open(log, errors="replace").read().splitlines()
            blocks, block = [], []
            for text in lines + [None]:
                if text is None or starts.match(text):
                    if block:
                        blocks.append("\n".join(block))
                    block = [] if text is None else [text]
                elif block and not noise.match(text):
                    block.append(text)
            if not blocks and open(f"{log}.status").read().strip() != "0":
                blocks = [f"clang-tidy failed on {source}:\n" + "\n".join(lines[-30:])]
            for text in blocks:
                findings[text.replace(root + "/", "")] = True
    for text in sorted(findings):
        print(text)
    if findings:
        print(f"lint: {len(findings)} clang-tidy finding(s)", file=sys.stderr)
        sys.exit(1)
