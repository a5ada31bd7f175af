#!/usr/bin/env python3
"""Writes a stack of four soft white discs of a particle's size as an MRC
stack (mode 2): the user templates of the benchmarks.

usage: make_templates.py OUT.mrcs APIX DIAMETER
"""
import math
import struct
import sys

out, apix, diameter = sys.argv[1], float(sys.argv[2]), float(sys.argv[3])
n = 256
r0 = diameter / (2 * apix)
head = bytearray(1024)
struct.pack_into('<4i', head, 0, n, n, 4, 2)
head[208:216] = b'MAP DA\0\0'
with open(out, 'wb') as f:
    f.write(head)
    c = (n - 1) / 2
    for k in range(4):
        r, e = (0.65 + 0.05 * k) * r0, 0.2 * r0
        img = []
        for y in range(n):
            for x in range(n):
                d = math.hypot(x - c, y - c)
                img.append(1.0 if d <= r else 0.5 + 0.5 * math.cos(math.pi * (d - r) / e) if d < r + e else 0.0)
        f.write(struct.pack('<%df' % len(img), *img))
