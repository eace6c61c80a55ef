#!/usr/bin/env python3
"""list_exports.py INCLUDE_DIR: writes what application.cpp includes: the address of every function and an object of every
class and alias that the headers declare. A declaration of no known form is an error: none is left out unseen."""
import pathlib
import re
import sys

MARKS = re.compile(r"\b(?:TALVO_API|virtual|inline|extern)\s+|\[\[\w+\]\]\s*|__attribute__\s*\(\(.*\)\)")
out = []


def statements(text):
    """(head, body) of each statement of a block; the body is None where a semicolon ends it."""
    head = 0
    while match := re.compile(r"[{;]").search(text, head):
        end, body = match.end(), None
        if match.group() == "{":
            depth = 1
            while depth:
                depth += {"{": 1, "}": -1}.get(text[end], 0)
                end += 1
            body = text[match.end() : end - 1]
        if text[head : match.start()].strip() or body:
            yield " ".join(text[head : match.start()].split()), body
        head = end


def keep(kind, name):
    out.append(f"bool const k{len(out)} = Keep<{kind}>(&{name});")


def make(kind, name):
    out.append(f'bool const k{len(out)} = Make<{kind}>("{name}");')


def block(text):
    for marked, body in statements(text):
        head = MARKS.sub("", marked).strip()
        if head == "namespace support":
            pass  # friends inside the library
        elif re.match(r"namespace ", head):
            out.append(head + " {")
            block(body)
            out.append("}")
        elif match := re.match(r"(?:class|struct) (\w+)", head):
            if body is not None:
                make(match[1], match[1])
                functions = [m for m, b in statements(body) if b is None and re.search(r"^[^=]+\)( const)?( override)?$", m)]
                if functions and "TALVO_API" not in marked:
                    sys.exit(f"list_exports.py: {head} has functions and no TALVO_API")
        elif match := re.match(r"using (\w+) =", head):
            make(match[1], match[1])
        elif match := re.match(r"template class (.*)", head):
            make(match[1], "")
        elif re.match(r"template OperationPtr MakeOperation<", head):
            pass  # called by the kernels, each of which has its name by "using"
        elif body is not None or re.match(r"template <|constexpr|enum|using|static_assert", head):
            pass  # defined here
        elif match := re.match(r"(?:template )?(.*?[ &*])([\w]+|operator\S+)\((.*)\)$", head):
            keep(match[1] + "(" + re.sub(r"\s*=\s*[^,()]+(\(\))?", "", match[3]) + ")", match[2])
        elif match := re.match(r"(\w+) (\w+(?:, \w+)*)$", head):  # several functions of one named type
            for name in match[2].split(", "):
                keep(match[1], name)
        else:
            sys.exit(f"list_exports.py: what is this? {head}")


include = pathlib.Path(sys.argv[1])
off = re.findall(r"define (TALVO_WITH_\w+) 0", (include / "talvo/utility/features.h").read_text())

for header in sorted(include.rglob("*.h")):
    text = header.read_text()
    for feature in off:
        text = re.sub(rf"^#if {feature}$.*?^#endif$", "", text, flags=re.M | re.S)
    if header.stem.endswith("_c"):  # C: functions are all that it exports
        for name in re.findall(r"^TALVO_API [^;(]*?(\w+)\(", text, flags=re.M):
            keep(f"decltype({name})", name)
        continue
    code = re.sub(r"//.*|^\s*#.*$", "", text.replace("\\\n", " "), flags=re.M)
    block(re.sub(r'"[^"\n]*"', '""', code).replace("= {}", "= 0"))  # a default value is no block
print("\n".join(out))
