#!/usr/bin/python3
"""Writes a program's man page from its --help text, so that help and manual cannot disagree.

usage: help_to_man.py PROGRAM NAME VERSION SUMMARY OUTPUT [--commands] [--see-also TEXT]

The help text keeps to one layout (the talvoro tools' own):
  usage: NAME ...          the first line; further synopsis lines are indented to line up
  paragraphs               become the DESCRIPTION; lines indented by four blanks are examples
  heading:                 a line ending in ':' at column 0 starts a section (options,
                           exit status, ...); entries are indented by two blanks, the term
                           separated from its text by two or more blanks; deeper indented
                           lines continue the text
With --commands, each entry of the "commands:" section is a subcommand: the help of
`PROGRAM TERM --help` becomes its subsection of COMMANDS (its common options are left out:
they are listed once). A line that fits none of these fails the generator, so nothing vanishes
from the page unnoticed.
"""
import re
import subprocess
import sys


def run_help(argv):
    done = subprocess.run(argv + ["--help"], capture_output=True, text=True, check=False)
    if done.returncode != 0:
        sys.exit(f"help_to_man: {' '.join(argv)} --help exited with {done.returncode}")
    return done.stdout


def roff(text):
    text = text.replace("\\", "\\e").replace("-", "\\-")
    if text.startswith((".", "'")):
        text = "\\&" + text
    return text


class Help:
    """A help text split into synopsis, description and sections."""

    def __init__(self, text, where):
        lines = text.rstrip("\n").split("\n")
        if not lines or not lines[0].startswith("usage: "):
            sys.exit(f"help_to_man: {where}: the help does not begin with 'usage: '")
        self.synopsis = [lines[0][len("usage: "):]]
        i = 1
        while i < len(lines) and lines[i].startswith("       "):
            self.synopsis.append(lines[i].strip())
            i += 1
        self.description = []  # ("p", text) or ("example", [lines])
        self.sections = []  # (heading, [("entry", term, text) | ("p", text)])
        blocks = self.description
        paragraph = []
        entry = None

        def flush():
            nonlocal paragraph, entry
            if paragraph:
                blocks.append(("p", " ".join(paragraph)))
            paragraph = []
            entry = None

        for n, line in enumerate(lines[i:], start=i + 1):
            if not line.strip():
                flush()
            elif re.fullmatch(r"[a-z][a-z ]*:", line):
                flush()
                blocks = []
                self.sections.append((line[:-1], blocks))
            elif line.startswith("    ") and entry is None and blocks is self.description:
                if paragraph:
                    flush()
                if blocks and blocks[-1][0] == "example":
                    blocks[-1][1].append(line.strip())
                else:
                    blocks.append(("example", [line.strip()]))
            elif line.startswith("  ") and not line.startswith("   ") and blocks is not self.description:
                flush()
                match = re.fullmatch(r"  (\S.*?)(?:\s{2,}(\S.*))?", line)
                entry = ["entry", match.group(1), match.group(2) or ""]
                blocks.append(entry)
            elif line.startswith("   ") and entry is not None:
                entry[2] = (entry[2] + " " + line.strip()).strip()
            elif not line.startswith(" "):
                entry = None
                paragraph.append(line)
            else:
                sys.exit(f"help_to_man: {where}, help line {n}: no place for '{line}'")
        flush()


def write_blocks(out, blocks):
    for block in blocks:
        if block[0] == "p":
            out.append(".PP")
            out.append(roff(block[1]))
        elif block[0] == "example":
            out.append(".PP")
            out.append(".nf")
            out.extend("    " + roff(line) for line in block[1])
            out.append(".fi")
        else:
            out.append(".TP")
            out.append("\\fB" + roff(block[1]) + "\\fR")
            out.append(roff(block[2]))


def main():
    args = sys.argv[1:]
    commands = "--commands" in args
    if commands:
        args.remove("--commands")
    see_also = ""
    if "--see-also" in args:
        i = args.index("--see-also")
        see_also = args[i + 1]
        del args[i:i + 2]
    if len(args) != 5:
        sys.exit(__doc__.split("\n\n")[1])
    program, name, version, summary, output = args

    top = Help(run_help([program]), name)
    out = [f'.TH {name.upper()} 1 "" "{name} {version}" "User Commands"',
           ".SH NAME", f"{roff(name)} \\- {roff(summary)}", ".SH SYNOPSIS", ".nf"]
    out.extend(roff(line) for line in top.synopsis)
    out.append(".fi")
    out.append(".SH DESCRIPTION")
    write_blocks(out, top.description)
    for heading, blocks in top.sections:
        out.append(".SH " + roff(heading.upper()))
        if commands and heading == "commands":
            for block in blocks:
                if block[0] != "entry":
                    write_blocks(out, [block])
                    continue
                sub = Help(run_help([program, block[1]]), f"{name} {block[1]}")
                out.append(".SS " + roff(" ".join(sub.synopsis)))
                write_blocks(out, sub.description)
                for sub_heading, sub_blocks in sub.sections:
                    if sub_heading == "common options":
                        continue
                    out.append(".PP")
                    out.append(roff(sub_heading[0].upper() + sub_heading[1:]) + ":")
                    out.append(".RS")
                    write_blocks(out, sub_blocks)
                    out.append(".RE")
        else:
            write_blocks(out, blocks)
    if see_also:
        out.append(".SH SEE ALSO")
        out.append(roff(see_also))
    with open(output, "w", encoding="utf-8") as f:
        f.write("\n".join(out) + "\n")


if __name__ == "__main__":
    main()
