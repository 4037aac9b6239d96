"""Doxygen input filter: reads the plain // comments of a public header as its
documentation, line for line, so that warnings point at the header's own lines.

- The comment block that opens the file documents the file.
- A comment block directly above a declaration documents that declaration.
- A comment after a declaration or enumerator on the same line (`x;  // ...`),
  and the comment lines aligned below it, document that member.
- Other comments (section rulers, comments followed by a blank line, a
  closing brace or an access label) stay plain comments.

Doxygen calls it as `python3 doxygen_comment_filter.py <header>` and reads
the filtered text from standard output.
"""
import os
import re
import sys

COMMENT_LINE = re.compile(r"^(\s*)//(?!/)\s?(.*)$")
TRAILING_COMMENT = re.compile(r"^(\s*[^\s/].*?[;,])(\s*)//(?!/)\s?(.*)$")
NOT_DOCUMENTABLE = re.compile(r"^\s*($|#|}|(public|private|protected)\s*:|namespace\b)")


def outside_strings(code):
    return code.count('"') % 2 == 0


def filter_header(name, lines):
    out = list(lines)
    count = len(lines)
    index = 0
    # The opening block documents the file.
    while index < count and COMMENT_LINE.match(lines[index]):
        match = COMMENT_LINE.match(lines[index])
        prefix = f"\\file {name} " if index == 0 else ""
        out[index] = f"{match.group(1)}//! {prefix}{match.group(2)}"
        index += 1
    trailing_column = None
    while index < count:
        line = lines[index]
        match = COMMENT_LINE.match(line)
        if match is None:
            trailing = TRAILING_COMMENT.match(line)
            trailing_column = None
            if trailing and outside_strings(trailing.group(1)):
                code, space, text = trailing.groups()
                out[index] = f"{code}{space}//!< {text}"
                trailing_column = len(code) + len(space)
            index += 1
            continue
        if trailing_column is not None and len(match.group(1)) == trailing_column:
            out[index] = f"{match.group(1)}//!< {match.group(2)}"
            index += 1
            continue
        trailing_column = None
        block_end = index
        while block_end < count and COMMENT_LINE.match(lines[block_end]):
            block_end += 1
        if block_end < count and not NOT_DOCUMENTABLE.match(lines[block_end]):
            for line_index in range(index, block_end):
                block_match = COMMENT_LINE.match(lines[line_index])
                out[line_index] = f"{block_match.group(1)}//! {block_match.group(2)}"
        index = block_end
    return out


def main():
    path = sys.argv[1]
    with open(path, encoding="utf-8") as header:
        lines = header.read().split("\n")
    filtered = (line.rstrip() for line in filter_header(os.path.basename(path), lines))
    sys.stdout.write("\n".join(filtered))


if __name__ == "__main__":
    main()
