#!/usr/bin/env python3
"""Computes the contrast of every text and picture on every ground it is drawn on, in both palettes, from the theme's
table of colours. Prints the table; fails below the limits, for a role without a pair, and for a raw colour in a group.
usage: contrast.py THEME_DIR"""
import pathlib
import re
import sys

MAIL, TEXT, PICTURE = 7.0, 4.5, 3.0
# What is drawn, on what, at least how well. Mail text: what people read at length.
PAIRS = [
    ('text', 'bg', MAIL), ('text', 'title/bg', MAIL), ('text', 'popup/bg', MAIL), ('text', 'surface', MAIL),
    ('text', 'surface/pressed', TEXT), ('text', 'row/pressed', MAIL), ('text', 'selection', TEXT),
    ('text', 'key', TEXT), ('text', 'key/special', TEXT),
    ('text/secondary', 'bg', MAIL), ('text/secondary', 'popup/bg', TEXT), ('text/secondary', 'row/pressed', TEXT),
    ('text/secondary', 'group/bg', TEXT), ('text/secondary', 'surface/pressed', TEXT), ('text/secondary', 'surface', TEXT),
    ('text/disabled', 'surface', TEXT),
    ('text/accent', 'bg', TEXT), ('text/accent', 'group/bg', TEXT), ('text/accent', 'surface/pressed', TEXT),
    ('accent/text', 'accent', TEXT),
    ('danger/text', 'danger', TEXT), ('toast/text', 'toast/bg', TEXT),
    ('#ff9000', 'notice/bg', TEXT),
    ('accent', 'bg', PICTURE), ('accent', 'title/bg', PICTURE), ('accent', 'popup/bg', PICTURE), ('accent', 'row/pressed', PICTURE),
    ('icon', 'title/bg', PICTURE), ('icon', 'surface', PICTURE), ('icon', 'surface/pressed', PICTURE), ('icon', 'bg', PICTURE),
    ('icon/secondary', 'bg', PICTURE), ('icon/secondary', 'popup/bg', PICTURE), ('icon/secondary', 'row/pressed', PICTURE),
    ('text', 'keypad/bg', TEXT),
]
# Lines and the scrolling mark: they tell nothing that is not said otherwise.
DECORATION = {'divider', 'scrollbar'}


def luminance(rgb):
    def part(value):
        value /= 255
        return value / 12.92 if value <= 0.04045 else ((value + 0.055) / 1.055) ** 2.4
    r, g, b = (part(v) for v in rgb)
    return 0.2126 * r + 0.7152 * g + 0.0722 * b


def contrast(one, other):
    light, dark = sorted((luminance(one), luminance(other)), reverse=True)
    return (light + 0.05) / (dark + 0.05)


def main():
    theme = pathlib.Path(sys.argv[1])
    failed = []
    palettes = {'dark': {}, 'light': {}}
    for name, dark, light in re.findall(r'ROLE\("brisel/([^"]+)",\s*([\d ]+),\s*([\d ]+)\)', (theme / 'colors.edc').read_text()):
        for palette, text in (('dark', dark), ('light', light)):
            values = [int(v) for v in text.split()]
            if len(values) != 4 or values[3] != 255:
                failed.append(f'{palette} {name}: not an opaque colour: {text}')
            palettes[palette][name] = values[:3]
    if len(palettes['dark']) < 20:
        failed.append('the table of colours could not be read')
    for palette, colors in palettes.items():
        for what, ground, limit in PAIRS:
            one = [int(what[i:i + 2], 16) for i in (1, 3, 5)] if what[0] == '#' else colors.get(what)
            other = colors.get(ground)
            if one is None or other is None:
                failed.append(f'{palette}: no such role: {what} or {ground}')
                continue
            value = contrast(one, other)
            print(f'{palette:5} {what:16} on {ground:16} {value:5.2f} (at least {limit})')
            if value < limit:
                failed.append(f'{palette}: {what} on {ground}: {value:.2f}, at least {limit}')
    judged = {name for pair in PAIRS for name in pair[:2]} | DECORATION
    failed += [f'{name}: is on no list of pairs' for name in palettes['dark'] if name not in judged]
    # A group names roles. Opaque and clear are for clipping and fading, and white with an alpha is a strength.
    for path in sorted(theme.glob('*.edc')):
        for number, line in enumerate(path.read_text().splitlines(), 1):
            if path.name == 'colors.edc':
                continue
            for color in re.findall(r'\bcolor[23]?:\s*([^;]+);', line):
                if color.strip() not in ('CLEAR', 'OPAQUE', 'D') and not re.fullmatch(r'255 255 255 \d+', color.strip()):
                    failed.append(f'{path.name}:{number}: raw colour {color}')
            if 'base:' in line and 'color=cc:' in line and 'text_class=brisel/style' not in line:
                failed.append(f'{path.name}:{number}: this text style would keep its colour when the palette changes')
            failed += [f'{path.name}:{number}: raw colour in a text style' for _ in re.findall(r'color=(?!cc:)', line)]
    used = ' '.join(path.read_text() for path in theme.glob('*.edc') if path.name != 'colors.edc')
    failed += [f'{name}: no such role' for name in sorted(set(re.findall(r'brisel/([a-z/]+)', ' '.join(
        re.findall(r'(?:color_class: |cc:|, )"?(brisel/[a-z/]+)', used))))) if name not in palettes['dark']]
    for line in failed:
        print('FAILED', line, file=sys.stderr)
    return 1 if failed else 0


sys.exit(main())
