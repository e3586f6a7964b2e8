"""Writes the numbered schema files as one C++ header: embed.py OUTPUT FILE..."""
import sys

output, files = sys.argv[1], sorted(sys.argv[2:])
with open(output, 'w', encoding='utf-8') as out:
    out.write('#pragma once\n/* Made from service/schema. Step n takes a store from version n to version n + 1. */\n')
    out.write('constexpr const char *schema_steps[] = {\n')
    for name in files:
        with open(name, encoding='utf-8') as text:
            out.write('R"SCHEMA(%s)SCHEMA",\n' % text.read())
    out.write('};\n')
