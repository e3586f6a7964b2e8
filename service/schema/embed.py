"""Writes the numbered schema files of the store, or of the phone's state, as one C++ header:
embed.py OUTPUT NAME FILE..."""
import sys

output, name, files = sys.argv[1], sys.argv[2], sorted(sys.argv[3:])
with open(output, 'w', encoding='utf-8') as out:
    out.write('#pragma once\n/* Made from numbered files. Step n takes a file from version n to version n + 1. */\n')
    out.write('constexpr const char *%s[] = {\n' % name)
    for file in files:
        with open(file, encoding='utf-8') as text:
            out.write('R"SCHEMA(%s)SCHEMA",\n' % text.read())
    out.write('};\n')
