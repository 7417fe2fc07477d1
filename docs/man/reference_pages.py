#!/usr/bin/env python3
"""usage: reference_pages.py DOXYGEN_XML_FOLDER VERSION OUTPUT_FOLDER

Make section 3 of the manual from Doxygen's output for the public headers: libgvusb(3) from the main page, one page for
each group of functions, under the name of each function a reference to its page, and gvusb_cxx(3) for the C++ interface.
"""

import itertools
import os
import re
import sys
import xml.etree.ElementTree as ElementTree

GROUPS = ["finding", "opening", "frames", "settings", "events", "errors", "types"]


def escape(text):
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return "\n".join("\\&" + line if line[:1] in (".", "'") else line for line in text.split("\n"))


def inline(element):
    """The text of an element with its inline markup, without nested blocks."""
    text = escape(element.text or "")
    for child in element:
        if child.tag not in BLOCKS:
            piece = inline(child)
            text += f"\\fB{piece}\\fR" if child.tag in ("bold", "computeroutput") else piece
        text += escape(child.tail or "")
    return " ".join(text.split())


def items(element):
    lines = []
    for item in element.findall("listitem"):
        lines += [".IP \\(bu 2"] + [inline(para) for para in item.findall("para")]
    return lines + [".PP"]


def parameters(element):
    lines = []
    for item in element.findall("parameteritem"):
        names = ", ".join(escape(name.text) for name in item.iter("parametername"))
        description = [inline(para) for para in item.findall("parameterdescription/para")]
        lines += [".TP", f"\\fI{names}\\fR"] + description
    return lines


def section(element):
    kind = element.get("kind")
    title = {"return": "Returns", "see": "See also"}.get(kind) or inline(element.find("title"))
    lines = [".TP", f"\\fB{title}\\fR"] if kind == "return" else [".SS " + title]
    return lines + [line for para in element.findall("para") for line in paragraph(para)]


BLOCKS = {"itemizedlist": items, "parameterlist": parameters, "simplesect": section}


def paragraph(para):
    text = inline(para)
    lines = [text] if text else []
    for child in para:
        if child.tag in BLOCKS:
            lines += BLOCKS[child.tag](child)
    return lines


def paragraphs(element):
    lines = []
    for child in [] if element is None else element:
        if child.tag == "para":
            lines += [".PP"] + paragraph(child)
        elif child.tag == "sect1":
            lines += [f'.SH "{inline(child.find("title")).upper()}"'] + paragraphs(child)
    return lines


def synopsis(member):
    result = "".join(member.find("type").itertext())
    arguments = [" ".join("".join(parameter.find("type").itertext()).split()).replace(" *", "*") + " "
                 + parameter.findtext("declname", "") for parameter in member.findall("param")]
    return [".PP", ".nf", f'\\fB{escape(result)} {member.findtext("name")}({escape(", ".join(arguments).strip())});\\fR',
            ".fi"]


def function(member):
    name = member.findtext("name")
    return [f".SS {name}"] + synopsis(member) + paragraphs(member.find("briefdescription")) + \
        paragraphs(member.find("detaileddescription"))


def described(element):
    """The description of an enumerator or a field, on one line."""
    paras = element.findall("briefdescription/para") + element.findall("detaileddescription/para")
    return " ".join(inline(para) for para in paras)


def enumeration(member):
    lines = [".SS " + (member.findtext("name") if member.findtext("name")[:1] != "@" else "Constants")]
    lines += paragraphs(member.find("briefdescription"))
    for value in member.findall("enumvalue"):
        initializer = escape(value.findtext("initializer", ""))
        lines += [".TP", f'\\fB{value.findtext("name")}\\fR {initializer}', described(value)]
    return lines


def defined(member, definition):
    return [".SS " + member.findtext("name"), ".PP", ".nf", f"\\fB{escape(definition)}\\fR", ".fi"] + \
        paragraphs(member.find("briefdescription")) + paragraphs(member.find("detaileddescription"))


def macro(member):
    return defined(member, f'#define {member.findtext("name")} {member.findtext("initializer")}')


def type_name(member):
    """Undo the blanks that Doxygen adds beside stars and parentheses."""
    definition = member.findtext("definition").replace(" *", "* ").replace("(* ", " (*").replace(") (", ")(")
    return defined(member, definition + ";")


MEMBERS = {"function": function, "enum": enumeration, "define": macro, "typedef": type_name}


def record(folder, reference):
    compound = ElementTree.parse(os.path.join(folder, reference + ".xml")).find("compounddef")
    lines = [".SS struct " + compound.findtext("compoundname")] + paragraphs(compound.find("briefdescription"))
    lines += paragraphs(compound.find("detaileddescription"))
    for field in compound.iter("memberdef"):
        declaration = "".join(field.find("type").itertext()) + " " + field.findtext("name") + field.findtext("argsstring", "")
        lines += [".TP", f"\\fB{escape(declaration)}\\fR", described(field)]
    return lines


class Manual:
    def __init__(self, version, folder):
        self.version = version
        self.folder = folder

    def write(self, name, brief, names, lines):
        head = [f'.TH {name} 3 "" "gvusb {self.version}" "USB RFID readers"', ".nh", ".ad l", ".SH NAME",
                ", ".join([name] + names) + " \\- " + brief]
        others = [f"\\fBgvusb_{group}\\fR(3)" for group in GROUPS + ["cxx"] if f"gvusb_{group}" != name]
        if name != "libgvusb":
            others.insert(0, "\\fBlibgvusb\\fR(3)")
        also = [".SH SEE ALSO", ", ".join(others + ["\\fBgvusb.conf\\fR(5)", "\\fBgvusb\\fR(1)",
                                                    "\\fBgvusb\\-emulate\\fR(1)"])]
        with open(os.path.join(self.folder, f"{name}.3"), "w", encoding="utf-8") as file:
            file.write("\n".join(line for line in head + lines + also if line.strip()) + "\n")
        for other in names:
            with open(os.path.join(self.folder, f"{other}.3"), "w", encoding="utf-8") as file:
                file.write(f".so man3/{name}.3\n")


def compound_of(folder, reference):
    return ElementTree.parse(os.path.join(folder, reference + ".xml")).find("compounddef")


def cxx_declaration(member):
    text = member.findtext("definition") + member.findtext("argsstring", "")
    text = re.sub(r" ([&*]+) ?(?=[\w.])", r"\1 ", text).replace("< ", "<").replace(" >", ">")
    return re.sub(r"=(default|delete)$", "", text.replace("= typedef ", "= "))


def is_documented(member):
    return member.get("prot") == "public" and " ".join(member.find("briefdescription").itertext()).strip() != ""


def cxx_functions(compound):
    """Overloads with the same description stand together, with that of the most parameters."""
    members = [member for member in compound.iter("memberdef") if member.get("kind") == "function" and is_documented(member)]
    lines = []
    for _, group in itertools.groupby(members, lambda member: (member.findtext("name"),
                                                               "".join(member.find("briefdescription").itertext()))):
        group = list(group)
        lines += [".PP", ".nf"] + [f"\\fB{escape(cxx_declaration(member))};\\fR" for member in group] + [".fi"]
        longest = max(group, key=lambda member: len(member.findall("param")))
        lines += paragraphs(longest.find("briefdescription")) + paragraphs(longest.find("detaileddescription"))
    return lines


def cxx_types(compound):
    """Enumerations and the members of records."""
    lines = []
    for member in compound.iter("memberdef"):
        if member.get("kind") in ("enum", "variable", "typedef") and is_documented(member):
            declaration = ("enum class " if member.get("kind") == "enum" else "") + (
                member.findtext("qualifiedname") if member.get("kind") == "enum" else cxx_declaration(member))
            lines += [".TP", f"\\fB{escape(declaration)}\\fR", described(member)]
            for value in member.findall("enumvalue"):
                lines += [".TP", f'\\fB{member.findtext("qualifiedname")}::{value.findtext("name")}\\fR', described(value)]
    return lines


def cxx_page(folder):
    """The C++ interface: what is in its namespaces, and its classes."""
    lines = []
    namespaces = [compound_of(folder, name) for name in ("namespacegvusb", "namespacegvusb_1_1driver")]
    for namespace in namespaces:
        title = "FUNCTIONS" if namespace is namespaces[0] else "SETTINGS OF THE DRIVER"
        lines += [f'.SH "{title}"'] + cxx_types(namespace) + cxx_functions(namespace)
    lines += [".SH CLASSES"]
    for inner in namespaces[0].findall("innerclass"):
        compound = compound_of(folder, inner.get("refid"))
        if inner.get("prot") == "public" and "detail" not in inner.text:
            lines += [".SS " + inner.text] + paragraphs(compound.find("briefdescription"))
            lines += paragraphs(compound.find("detaileddescription")) + cxx_types(compound) + cxx_functions(compound)
    return lines


INCLUDE = [".SH SYNOPSIS", ".nf", "#include <gvusb.h>", ".fi"]


def main():
    xml, version, output = sys.argv[1:]
    os.makedirs(output, exist_ok=True)
    manual = Manual(version, output)
    front = ElementTree.parse(os.path.join(xml, "indexpage.xml")).find("compounddef/detaileddescription")
    manual.write("libgvusb", "find, open and talk to USB RFID readers", [],
                 INCLUDE + [".PP", "Link with \\fB\\-lgvusb\\fR.", ".SH DESCRIPTION"] + paragraphs(front))
    for group in GROUPS:
        compound = ElementTree.parse(os.path.join(xml, f"group__{group}.xml")).find("compounddef")
        members = list(compound.iter("memberdef"))
        functions = [member.findtext("name") for member in members if member.get("kind") == "function"]
        lines = INCLUDE + [".SH DESCRIPTION"] + paragraphs(compound.find("briefdescription"))
        lines += paragraphs(compound.find("detaileddescription"))
        for kind, described_by in MEMBERS.items():
            for member in members:
                if member.get("kind") == kind:
                    lines += described_by(member)
        for inner in compound.findall("innerclass"):
            lines += record(xml, inner.get("refid"))
        title = compound.findtext("title")
        manual.write(f"gvusb_{group}", title[0].lower() + title[1:], functions, lines)
    group = compound_of(xml, "group__cxx")
    description = paragraphs(group.find("briefdescription")) + paragraphs(group.find("detaileddescription"))
    manual.write("gvusb_cxx", "the C++ interface", [],
                 [".SH SYNOPSIS", ".nf", "#include <gvusb.hpp>", ".fi", ".PP", "Link with \\fB\\-lgvusb\\fR.",
                  ".SH DESCRIPTION"] + description + cxx_page(xml))


if __name__ == "__main__":
    main()
