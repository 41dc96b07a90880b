#!/usr/bin/python3
"""usage: docs_test.py SOURCE_DIR BUILD_DIR [DOCUMENT...]

Runs every shell command of the documentation under the virtual camera and fails on the first
that does not succeed, so that the docs cannot go stale. The rules (docs/writing-docs.md):

- Every fenced block whose info string is `sh` is run, as one `sh -e` script, in a scratch
  directory that holds `build` (the build tree), `scripts`, `docs` and `examples` (the source's),
  a program `my_app`, and the recordings `lab.tlvrec` and `lab1.tlvrec`; `talvoro` and
  `talvoro-vcam` are on PATH. A block that does not start the launcher itself runs under
  `talvoro-vcam run --camera serial=LAB1`. The blocks of one document share the directory;
  the documents run side by side.
- A block that must not run (it installs into the system, or runs the whole build) has the line
  `<!-- not run: REASON -->` directly before its fence.
- Strict: a shell block marked `bash`, `shell` or `console`, a `not run` line without a reason
  or not directly before an `sh` block, or a fence left open fails the test.
"""
import concurrent.futures
import os
import re
import shutil
import subprocess
import sys
import tempfile

DOCUMENTS = ["README.md", "docs/user-guide.md", "docs/vcam.md"]
NOT_RUN = re.compile(r"<!-- not run: (.*\S.*) -->")
OTHER_SHELLS = {"bash", "shell", "console", "shell-session", "zsh"}
TIMEOUT = 120


class Block:
    def __init__(self, document, line, language, text, skip_reason):
        self.document = document
        self.line = line
        self.language = language
        self.text = text
        self.skip_reason = skip_reason


def blocks_of(path, name):
    """The fenced blocks of a Markdown file; exits on a violated rule."""
    lines = open(path, encoding="utf-8").read().split("\n")
    blocks, errors = [], []
    i = 0
    while i < len(lines):
        line = lines[i]
        marker = NOT_RUN.fullmatch(line.strip())
        if line.strip().startswith("<!-- not run") and not marker:
            errors.append(f"{name}:{i + 1}: a 'not run' line needs a reason: {line.strip()}")
        if marker:
            following = lines[i + 1] if i + 1 < len(lines) else ""
            if following.strip() != "```sh":
                errors.append(f"{name}:{i + 1}: 'not run' must stand directly before a ```sh block")
        fence = re.match(r"^(\s*)(```+)(.*)$", line)
        if not fence:
            i += 1
            continue
        indent, ticks, info = fence.group(1), fence.group(2), fence.group(3).strip()
        language = info.split()[0] if info else ""
        start = i
        body = []
        i += 1
        while i < len(lines) and not re.match(rf"^\s*{ticks}\s*$", lines[i]):
            body.append(lines[i][len(indent):] if lines[i].startswith(indent) else lines[i])
            i += 1
        if i == len(lines):
            errors.append(f"{name}:{start + 1}: the block is never closed")
            break
        i += 1
        if language in OTHER_SHELLS:
            errors.append(f"{name}:{start + 1}: shell blocks are ```sh, not ```{language}")
        previous = lines[start - 1].strip() if start > 0 else ""
        skip = NOT_RUN.fullmatch(previous)
        blocks.append(Block(name, start + 1, language, "\n".join(body),
                            skip.group(1) if skip else None))
    if errors:
        sys.exit("\n".join(errors))
    return blocks


def prepare(work, source, build):
    """The scratch directory every block runs in."""
    os.symlink(build, os.path.join(work, "build"))
    for name in ("scripts", "docs", "examples"):
        os.symlink(os.path.join(source, name), os.path.join(work, name))
    bin_dir = os.path.join(work, ".bin")
    os.mkdir(bin_dir)
    os.symlink(os.path.join(build, "tools/talvoro/talvoro"), os.path.join(bin_dir, "talvoro"))
    os.symlink(os.path.join(build, "vcam/talvoro-vcam"), os.path.join(bin_dir, "talvoro-vcam"))
    # The application the docs run their examples with.
    with open(os.path.join(work, "my_app"), "w") as f:
        f.write("#!/bin/sh\n# A stand-in application: lists the cameras it finds, and succeeds.\n"
                "talvoro list || true\n")
    os.chmod(os.path.join(work, "my_app"), 0o755)
    env = dict(os.environ)
    env["PATH"] = bin_dir + os.pathsep + env.get("PATH", "")
    env["XDG_CACHE_HOME"] = os.path.join(work, ".cache")
    run(["talvoro-vcam", "run", "--camera", "serial=LAB1", "--", "talvoro", "record", "LAB1",
         "--mode", "4", "--frames", "3", "-q", "--out", "lab.tlvrec"], work, env, "recording")
    shutil.copy(os.path.join(work, "lab.tlvrec"), os.path.join(work, "lab1.tlvrec"))
    return env


class Failure(Exception):
    pass


def run(argv, cwd, env, what):
    try:
        done = subprocess.run(argv, cwd=cwd, env=env, capture_output=True, text=True,
                              timeout=TIMEOUT, check=False)
    except subprocess.TimeoutExpired:
        raise Failure(f"FAIL: {what}: no end after {TIMEOUT} s")
    if done.returncode != 0:
        raise Failure(f"FAIL: {what}: exit status {done.returncode}\n--- stdout\n{done.stdout}"
                      f"--- stderr\n{done.stderr}")
    return done


def run_document(name, source, build):
    """Runs the document's blocks; returns the numbers run and skipped, or raises Failure."""
    blocks = [b for b in blocks_of(os.path.join(source, name), name) if b.language == "sh"]
    ran = skipped = 0
    work = tempfile.mkdtemp(prefix="talvoro-docs-")
    try:
        env = prepare(work, source, build)
        for b in blocks:
            if b.skip_reason is not None:
                skipped += 1
                continue
            argv = ["sh", "-e", "-c", b.text]
            if "talvoro-vcam run" not in b.text:
                argv = ["talvoro-vcam", "run", "--camera", "serial=LAB1", "--"] + argv
            run(argv, work, env, f"{b.document}:{b.line}:\n{b.text}\n")
            ran += 1
    finally:
        shutil.rmtree(work, ignore_errors=True)
    return ran, skipped


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    source, build = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    documents = sys.argv[3:] or DOCUMENTS
    # The rules first: a broken document fails before anything runs.
    for name in documents:
        blocks_of(os.path.join(source, name), name)
    with concurrent.futures.ThreadPoolExecutor(len(documents)) as pool:
        futures = [pool.submit(run_document, name, source, build) for name in documents]
        results, failures = [], []
        for future in futures:
            try:
                results.append(future.result())
            except Failure as failure:
                failures.append(str(failure))
    if failures:
        sys.exit("\n".join(failures))
    ran = sum(r[0] for r in results)
    skipped = sum(r[1] for r in results)
    print(f"OK: {ran} command blocks of {len(documents)} documents ran under the virtual "
          f"camera; {skipped} marked 'not run'")


if __name__ == "__main__":
    main()
