#!/usr/bin/env python3
"""Reduces a dump of abidw to what daemons can see: abi_slim.py DUMP >REDUCED

Records of other libraries, which callers only hand on, become mere names: what another library
keeps inside is not this one's interface. Types that nothing leads to any more are left out.
"""
import sys
import xml.etree.ElementTree as ElementTree

FOREIGN_RECORDS = ("_IO_", "yaml_")
RECORDS = ("class-decl", "union-decl")


def close_foreign_records(dump: ElementTree.Element) -> None:
    for record in dump.iterfind("abi-instr/*"):
        name = record.get("name", "")
        if record.tag in RECORDS and name.startswith(FOREIGN_RECORDS):
            record[:] = []
            record.text = None
            record.attrib.pop("size-in-bits", None)
            record.set("is-declaration-only", "yes")


def drop_unreachable_types(dump: ElementTree.Element) -> None:
    dropped = True
    while dropped:
        dropped = False
        wanted = {element.get("type-id") for element in dump.iter()}
        wanted |= {element.get("naming-typedef-id") for element in dump.iter()}
        for unit in dump.iterfind("abi-instr"):
            for item in list(unit):
                if item.get("id") is not None and item.get("id") not in wanted:
                    unit.remove(item)
                    dropped = True


def main() -> None:
    dump = ElementTree.parse(sys.argv[1]).getroot()
    close_foreign_records(dump)
    drop_unreachable_types(dump)
    ElementTree.indent(dump)
    print(ElementTree.tostring(dump, encoding="unicode"))


main()
