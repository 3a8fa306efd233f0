"""Man pages as text: requests and escapes."""

import datetime
import os
import re
import textwrap

COLUMNS = 72 # of code; pages are indented by 7


def date_of_build():
    """The date that pages bear: a build that is to be repeated byte by byte sets $SOURCE_DATE_EPOCH."""
    epoch = os.environ.get("SOURCE_DATE_EPOCH")
    moment = datetime.datetime.fromtimestamp(int(epoch), datetime.timezone.utc) if epoch else datetime.datetime.now()
    return moment.strftime("%Y-%m-%d")


def title(name, section, version):
    """The first requests of a page: its head and its foot, no hyphens and a ragged margin."""
    return f'.TH "{name}" "{section}" "{date_of_build()}" "kest {version}" "kest"\n.nh\n.ad l'


def plain(text):
    """Text without meaning to the formatter."""
    text = text.replace("\\", "\\e").replace("-", "\\-").replace("'", "\\(aq").replace("`", "\\(ga")
    return "\\&" + text if text.startswith(".") else text


def words(text):
    """A line of text of a comment: `code` and functions() are bold."""
    pieces = re.split(r"`([^`]+)`|(\w+\(\))", text)
    made = ""
    for index, piece in enumerate(pieces):
        if piece:
            made += plain(piece).removeprefix("\\&") if index % 3 == 0 else f"\\fB{plain(piece)}\\fR"
    return "\\&" + made if made.startswith((".", "\\(aq")) else made


def code(lines):
    """Code as it stands."""
    return [".nf"] + [plain(line) for line in lines] + [".fi"]


def prototype(text):
    """A declaration, broken between arguments so that it fits."""
    held = re.sub(r"(?<!,) ", "\0", text) # no break inside an argument
    lines = textwrap.wrap(held, COLUMNS, subsequent_indent=" " * 8, break_long_words=False, break_on_hyphens=False)
    return [line.replace("\0", " ") for line in lines]


def paragraphs(lines):
    """The text of a comment below a heading: paragraphs, lists and drawings."""
    made = []
    kept = []

    def flush():
        if kept:
            made.extend([".PP", words(" ".join(kept))])
            kept.clear()

    item = False
    for line in lines + [""]:
        if line.startswith("    "):
            flush()
            if made and made[-1] == ".fi":
                made.pop()
            else:
                made.extend([".PP", ".nf"])
            made.extend([plain(line), ".fi"])
        elif line.startswith("- "):
            flush()
            made.extend([".IP \\(bu 3", words(line[2:])])
            item = True
        elif item and line.startswith("  "):
            made[-1] += " " + words(line.strip())
        elif not line.strip():
            flush()
            item = False
        else:
            kept.append(line.strip())
    return made[1:] if made[:1] == [".PP"] else made


def split_comment(comment):
    """@return the text, [(name, direction, text)] of parameters, the text of the result"""
    text, parameters, result = [], [], []
    target = text
    for line in comment:
        inline = line.find(" @")
        for part in ([line] if inline < 0 else [line[:inline], line[inline + 1:]]):
            parameter = re.match(r"@param(\[[a-z,]+\])? +(\S+) +(.*)", part)
            if parameter:
                direction, name, about = parameter.groups()
                target = [about]
                parameters.append((name, direction or "", target))
            elif part.startswith("@return"):
                target = result
                result.append(part.removeprefix("@return").strip())
            elif not part.strip() and target is not text:
                target = text
            else:
                target.append(part)
    return text, [(name, way, " ".join(about)) for name, way, about in parameters], " ".join(result)


def of_function(each, declared=False):
    """@param declared  the synopsis does not have it: show the declaration"""
    text, parameters, result = split_comment(each.comment)
    made = [f".SS {plain(each.name)}"]
    if declared:
        made += code(prototype(each.text)) + [".PP"]
    made += paragraphs(text)
    for name, way, about in parameters:
        made += [".TP", f"\\fI{plain(name)}\\fR" + (f" {plain(way)}" if way else ""), words(about)]
    if result:
        made += [".PP", "Returns " + words(result)]
    return made


def of_type(each, header):
    made = [f".SS {plain(each.text.rstrip(';'))}"] + paragraphs(split_comment(each.comment)[0])
    for field, note in each.members:
        note = note or header.words_of(field.split()[0])
        made += [".TP", f"\\fB{plain(field)}\\fR", words(note) if note else "\\&"]
    return made


def of_constants(constants):
    made = []
    for each in constants:
        made += [".TP", f"\\fB{plain(each.text.rstrip(';'))}\\fR", words(" ".join(each.comment))]
    return made


def functions_of(each):
    return [member for member in each.members if member.kind == "function"]


def related(header, page):
    """The pages of what the header's functions take and return."""
    text = "\n".join(header.lines)
    uses = {"kest-address": "kest_attributeValue", "kest-platform-errl": "class ErrlEntry;",
            "kest-platform-mern": "NodeType", "kest-platform-netc": "class NetcMessage;", "kest-platform-tavo": "tavo_"}
    found = [(name, 3) for name, use in uses.items() if name != page and use in text]
    return found + [("kest", 3), ("kest", 7)]


def of_header(header, include, page, version):
    """The whole page. @param include  as programs write it. @param page  its name"""
    kinds = {kind: [each for each in header.declarations if each.kind == kind]
             for kind in ("function", "class", "type", "constant")}
    first = " ".join(header.about).partition(". ")[0]
    names = [page] + [each.name for each in kinds["function"] + kinds["class"]]
    about = (first[0].lower() + first[1:]).rstrip(".").replace("`", "")
    made = [title(page, "3", version), ".SH NAME", ", ".join(plain(name) for name in names) + " \\- " + plain(about),
            ".SH SYNOPSIS", ".nf", f"\\fB#include <{plain(include)}>\\fR"]
    for each in kinds["function"]:
        made += [".sp"] + [plain(line) for line in prototype(each.text)]
    made += [".fi", ".SH DESCRIPTION"] + paragraphs(header.about)
    if kinds["function"]:
        made.append(".SH FUNCTIONS")
        for each in kinds["function"]:
            made += of_function(each)
    for each in kinds["class"]:
        made += [f".SH CLASS {plain(each.name)}"] + paragraphs(each.comment)
        made += of_constants([member for member in each.members if member.kind == "constant"])
        for member in functions_of(each):
            made += of_function(member, declared=True)
    if kinds["type"]:
        made.append(".SH TYPES")
        for each in kinds["type"]:
            made += of_type(each, header)
    if kinds["constant"]:
        made += [".SH CONSTANTS"] + of_constants(kinds["constant"])
    made += [".SH SEE ALSO", ", ".join(f"\\fB{plain(name)}\\fR({section})" for name, section in related(header, page))]
    return "\n".join(made)
