"""Small changes of C++ text, as a slip of the hand would make them. Text in, list of changes out; no file is touched.

The text is taken as clang-format leaves it: blanks around binary operators alone, braces around every block, one
statement a line.
"""

import collections
import re

# start and end are offsets in the file's text; new takes the place of what stands between them.
Change = collections.namedtuple("Change", "path start end new kind")


def mask(text):
    """The text with blanks in place of comments, literals and preprocessor lines; offsets stay."""
    pattern = re.compile(
        r'//[^\n]*|/\*.*?\*/|R"\((?:.|\n)*?\)"|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'|^[ \t]*#(?:\\\n|[^\n])*',
        re.S | re.M)
    return pattern.sub(lambda match: re.sub(r"[^\n]", " ", match.group()), text)


def closing(masked, opening):
    """Offset behind the bracket that closes the one at an offset."""
    depth = 0
    for offset in range(opening, len(masked)):
        if masked[offset] in "({[":
            depth += 1
        elif masked[offset] in ")}]":
            depth -= 1
            if depth == 0:
                return offset + 1
    return len(masked)


OPERATORS = {
    "==": ["!="], "!=": ["=="], "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"],
    "&&": ["||"], "||": ["&&"], "+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"], "%": ["+"], "+=": ["-="], "-=": ["+="],
    "&": ["|"], "|": ["&"], "<<": [">>"], ">>": ["<<"],
}


def operators(masked):
    for match in re.finditer(r"(?<=[\w)\]] )(==|!=|<=|>=|&&|\|\||[-+]=|<<|>>|[-<>+*/%&|])(?=[ \n])", masked):
        for new in OPERATORS[match.group(1)]:
            yield match.start(1), match.end(1), new, "operator"


def constants(masked):
    for match in re.finditer(r"(?<![\w.])(0x[0-9a-fA-F]+|\d+)(u|U|ul|UL|LL|)(?![\w.])", masked):
        value = int(match.group(1), 16 if match.group(1).startswith("0x") else 10)
        for new in [value + 1] + ([value - 1] if value > 0 else []):
            yield match.start(1), match.end(1), str(new), "constant off by one"
    for match in re.finditer(r"\b(true|false)\b", masked):
        yield match.start(), match.end(), {"true": "false", "false": "true"}[match.group()], "constant turned"


def conditions(masked):
    for match in re.finditer(r"\b(?:if|while) (\()", masked):
        end = closing(masked, match.start(1))
        condition = masked[match.end(1):end - 1]
        yield match.end(1), end - 1, "!(" + condition + ")", "condition negated"


def statements(masked):
    """Offsets of the statements that are no blocks."""
    for match in re.finditer(r"(?<=[;{}:])\s*\n( {4,})(?=[\w(+\-*:])", masked):
        start = offset = match.end()
        while offset < len(masked) and masked[offset] not in ";{}":
            offset = closing(masked, offset) if masked[offset] in "([" else offset + 1
        if offset < len(masked) and masked[offset] == ";":
            yield start, offset + 1


def block_end(masked, start):
    """Offset behind the block or the statement that begins at an offset."""
    offset = start
    while offset < len(masked) and masked[offset] not in ";{}":
        offset = closing(masked, offset) if masked[offset] in "([" else offset + 1
    if masked[offset] == "}":
        return start
    if masked[offset] == ";":
        return offset + 1
    offset = closing(masked, offset)
    rest = re.match(r"\s*else\b", masked[offset:])
    return block_end(masked, offset + rest.end()) if rest else offset


LOCK = re.compile(r"(?:const )?UTIL_(?:RW)?LOCK \w+ = UTIL_LOCK_")
EFFECT = re.compile(r"\(void\)|\*?[\w:.\->\[\]]+(?:\(|\s(?:[-+*/|&^]|<<|>>)?=\s)|delete\b|\+\+|--|break;|continue;")
NO_EFFECT = re.compile(r"(?:return|if|while|for|switch|case|default|using|typedef|static_assert)\b")


def left_out(masked):
    for start, end in statements(masked):
        text = masked[start:end]
        if LOCK.match(text):
            yield start, end, "", "lock dropped"
            space = re.match(r"\s*", masked[end:]).end()
            behind = block_end(masked, end + space)
            following = masked[end + space:behind]
            if following and not following.startswith("return"):
                yield start, behind, None, "lock taken later"  # None: the two in the other order
        elif EFFECT.match(text) and not NO_EFFECT.match(text):
            yield start, end, ";", "statement left out"


def results(masked):
    for match in re.finditer(r"\breturn ([^;{}]+);", masked):
        text = match.group(1)
        if re.fullmatch(r"QN_RET_\w+", text):
            new = "QN_RET_STATE" if text == "QN_RET_OK" else "QN_RET_OK"
        elif text in ("true", "false") or re.fullmatch(r"-?\d+", text):
            continue  # constants has them
        else:
            new = "!(" + text + ")"
        yield match.start(1), match.end(1), new, "result changed"


def changes(path, text):
    """All changes of one file, in order of their places."""
    masked = mask(text)
    found = []
    for maker in (operators, constants, conditions, left_out, results):
        for start, end, new, kind in maker(masked):
            if new is None:
                first = text[start:].split(";", 1)[0] + ";"
                new = text[start + len(first):end].strip() + "\n    " + first
            elif new.startswith("!("):
                new = "!(" + text[start:end] + ")"
            found.append(Change(path, start, end, new, kind))
    return sorted(found)
