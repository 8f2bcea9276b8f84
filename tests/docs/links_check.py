"""Every file, folder and section that the README and the docs pages name exists.

Checked: Markdown links to files in the repository (and the section after
`#`, as the heading's anchor), and paths written as code, inline or in code
blocks, whose first folder is one of the repository's top-level entries (so
`robot/name` or `build/...` are not taken for paths) and that have no
placeholder in capitals (`tests/fuzz/NAME/`). Usage:
links_check.py SOURCE_DIR; prints each broken reference as FILE:LINE: what,
and exits 1 if there is one.
"""
import os
import re
import sys
import tempfile

LINK = re.compile(r"\[[^\]]*\]\(([^)\s]+)\)")
INLINE_CODE = re.compile(r"`([^`\n]+)`")
HEADING = re.compile(r"^#{1,6}\s+(.*?)\s*#*\s*$")


def pages(root):
    names = ["README.md", "CHANGELOG.md", os.path.join("bench", "README.md")]
    docs = os.path.join(root, "docs")
    names += [os.path.join("docs", n) for n in sorted(os.listdir(docs)) if n.endswith(".md")]
    return [n for n in names if os.path.isfile(os.path.join(root, n))]


def anchor(heading):
    """The anchor a Markdown renderer gives a heading."""
    text = re.sub(r"[`*_]", "", heading.strip().lower())
    text = re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", text)
    text = re.sub(r"[^\w\- ]", "", text)
    return text.replace(" ", "-")


def anchors(path):
    found, in_code = set(), False
    with open(path, encoding="utf-8") as f:
        for line in f:
            if line.startswith("```"):
                in_code = not in_code
            m = None if in_code else HEADING.match(line)
            if m:
                found.add(anchor(m.group(1)))
    return found


def code_paths(text, top):
    """Words of `text` that look like paths into the repository."""
    for word in re.split(r"[\s=(),;'\"|`]+", text):
        word = word.rstrip(".:")
        if "/" not in word or re.search(r"[*<>${}]|\.\.\.|://", word):
            continue
        # A component in capitals (`tests/fuzz/NAME/seeds/`) stands for any name.
        if word.split("/", 1)[0] in top and not re.search(r"(^|/)[A-Z][A-Z_]+(/|$)", word):
            yield word


def check(root):
    top = {n for n in os.listdir(root) if not n.startswith("build")}
    problems = []
    for page in pages(root):
        here = os.path.dirname(os.path.join(root, page))
        in_code = False
        with open(os.path.join(root, page), encoding="utf-8") as f:
            lines = f.read().split("\n")
        for number, line in enumerate(lines, 1):
            where = "%s:%d" % (page, number)
            if line.lstrip().startswith("```"):
                in_code = not in_code
                continue
            if in_code:
                words = list(code_paths(line, top))
            else:
                words = [w for code in INLINE_CODE.findall(line) for w in code_paths(code, top)]
                for target in LINK.findall(line):
                    if re.match(r"[a-z]+:", target):
                        continue
                    file, _, section = target.partition("#")
                    path = os.path.normpath(os.path.join(here, file)) if file else os.path.join(root, page)
                    if not os.path.exists(path):
                        problems.append("%s: link to %s, which does not exist" % (where, file))
                    elif section and path.endswith(".md") and section not in anchors(path):
                        problems.append("%s: link to %s, which has no section #%s" % (where, file or page, section))
            for word in words:
                if not os.path.exists(os.path.join(root, word)):
                    problems.append("%s: %s does not exist" % (where, word))
    return problems


def self_test():
    """The checker finds what it is meant to find (the lines marked "bad"), and nothing else."""
    page = "\n".join([
        "[a](docs/b.md) [a](docs/b.md#second-part) [a](#quick-start) [a](https://example.com/x)",
        "`robot/name`, `build/apps/x`, `docs/*.md`, `a/b`, `docs/NAME/x`, `docs/b.md`",
        "[bad](docs/gone.md)",
        "[bad](docs/b.md#no-such-part)",
        "`docs/b.md` and `docs/gone.md` (bad)",
        "```sh",
        "run docs/b.md --out=docs/gone.md (bad)",
        "`docs/gone.md` is inside a block (bad)",
        "```",
        "## Quick start"])
    with tempfile.TemporaryDirectory() as root:
        os.mkdir(os.path.join(root, "docs"))
        with open(os.path.join(root, "docs", "b.md"), "w") as f:
            f.write("# B\n## Second part\n")
        with open(os.path.join(root, "README.md"), "w") as f:
            f.write(page + "\n")
        found = [p for p in check(root) if p.startswith("README.md")]
    expected = [n for n, line in enumerate(page.split("\n"), 1) if "bad" in line]
    if [int(p.split(":")[1]) for p in found] != expected:
        print("self-test: expected problems on lines %r, found %r" % (expected, found))
        return False
    return True


def main():
    if not self_test():
        return 1
    problems = check(sys.argv[1])
    for p in problems:
        print(p)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
