#!/usr/bin/env python3
"""Runs every fuzz target for a while, from the corpus that is checked in and what earlier runs added to it.

    run.py PROGRAM [TARGET...]

FUZZ_SECONDS is the time of each target; those that open whole databases get five times as much, since they come to
a few hundred turns a second only. As many run beside each other as there are processors. What is new goes to the
folder "grown" beside the program, an input that fails to "findings"; status 1 when there is one.
`run.py --merge PROGRAM` puts into the corpus that is checked in what reaches more of the code than the files there.
"""

import concurrent.futures
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
SECONDS = int(os.environ.get("FUZZ_SECONDS", "12"))
SLOW = {"ldif_snapshot", "snapshot_file", "store_file"}
LONGEST = 4096
LARGEST_CORPUS_FILE = 300
LIMITS = [f"-max_len={LONGEST}", "-timeout=20", "-rss_limit_mb=3000", "-malloc_limit_mb=1000"]
# Blocks that were given back are kept for a while; of 256 MB each page would have to be cleared again and again.
SANITIZER = ":".join(filter(None, [os.environ.get("ASAN_OPTIONS"), "quarantine_size_mb=16"]))


def libfuzzer(program, target, *arguments):
    memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    with tempfile.TemporaryDirectory(prefix="authd-fuzz-", dir=memory) as scratch:
        environment = dict(os.environ, AUTHD_FUZZ_TARGET=target, TMPDIR=scratch, ASAN_OPTIONS=SANITIZER)
        done = subprocess.run([program, *LIMITS, *map(str, arguments)], env=environment, stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, errors="replace", check=False)
    return done.returncode, done.stderr


def run(program, target, work):
    grown, findings = work / "grown" / target, work / "findings"
    for folder in (grown, findings):
        folder.mkdir(parents=True, exist_ok=True)
    dictionary = HERE / "dictionaries" / f"{target.partition('_')[0]}.dict"
    seconds = SECONDS * (5 if target in SLOW else 1)
    status, text = libfuzzer(program, target, f"-max_total_time={seconds}", "-print_final_stats=1",
                             f"-artifact_prefix={findings}/{target}-", *([f"-dict={dictionary}"] if dictionary.exists() else []),
                             grown, HERE / "corpus" / target)
    facts = re.findall(r"DONE +(cov: \d+).*(corp: \d+)|(executed_units: \d+)|(does not hold: .*|SUMMARY: .*)", text)
    print(target, "good" if status == 0 else "FAILED", *filter(None, sum(facts, ())), flush=True)
    if status != 0:
        (findings / f"{target}.log").write_text(text, encoding="utf-8")
    return status == 0


def merge(program, target, work):
    with tempfile.TemporaryDirectory() as folder:
        for path in (work / "grown" / target).glob("*"):
            if path.stat().st_size <= LARGEST_CORPUS_FILE:
                shutil.copy(path, folder)
        status, text = libfuzzer(program, target, "-set_cover_merge=1", "-use_counters=0", HERE / "corpus" / target, folder)
    print(target, "merged" if status == 0 else text[-2000:])
    return status == 0


def main():
    work_at = merge if sys.argv[1] == "--merge" else run
    program, *targets = [argument for argument in sys.argv[1:] if argument != "--merge"]
    program = pathlib.Path(program).resolve()
    targets = targets or sorted(path.name for path in (HERE / "corpus").iterdir())
    targets.sort(key=lambda target: target not in SLOW)  # the longest first, else the last ones run alone
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        good = list(pool.map(lambda target: work_at(program, target, program.parents[1]), targets))
    sys.exit(0 if all(good) else 1)


if __name__ == "__main__":
    main()
