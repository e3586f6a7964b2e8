#!/usr/bin/env python3
"""Writes what a phone may say, and what is said to it, from the service's description of its bus interface, so that both
stand in one place.  usage: phone-table.py OUTPUT XML"""
import sys
import xml.etree.ElementTree as tree

output, source = sys.argv[1:]
phone = tree.parse(source).find("interface[@name='com.vextora.brisel.Phone1']")


def rows(kind):
    for member in phone.findall(kind):
        taken = "".join(a.get("type") for a in member.findall("arg") if a.get("direction") != "out")
        yield f'    {{"{member.get("name")}", "{taken}"}},'


with open(output, "w") as out:
    print("/* Made from the service's description of its bus interface. */", file=out)
    for name, kind in (("phone_methods", "method"), ("phone_signals", "signal")):
        print(f"static constexpr said {name}[] = {{", *rows(kind), "};", sep="\n", file=out)
