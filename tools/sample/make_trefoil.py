#!/usr/bin/env python3
"""Writes trefoil.stl, the sample mesh of `nodara demo`: a closed tube around a
trefoil knot, as a binary STL of outward-oriented triangles.

    python3 make_trefoil.py [output.stl]
"""
import math
import struct
import sys

ALONG, AROUND, RADIUS = 144, 20, 0.55


def curve(t):
    return (math.sin(t) + 2 * math.sin(2 * t), math.cos(t) - 2 * math.cos(2 * t), -math.sin(3 * t))


def derivative(t, h=1e-5):
    a, b = curve(t - h), curve(t + h)
    return tuple((q - p) / (2 * h) for p, q in zip(a, b))


def second_derivative(t, h=1e-4):
    a, m, b = curve(t - h), curve(t), curve(t + h)
    return tuple((p - 2 * q + r) / (h * h) for p, q, r in zip(a, m, b))


def cross(u, v):
    return (u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0])


def unit(u):
    n = math.sqrt(sum(x * x for x in u))
    return tuple(x / n for x in u)


def sub(u, v):
    return tuple(a - b for a, b in zip(u, v))


def main():
    out = sys.argv[1] if len(sys.argv) > 1 else "trefoil.stl"
    ring = []
    for i in range(ALONG):
        t = 2 * math.pi * i / ALONG
        c = curve(t)
        tangent = unit(derivative(t))
        binormal = unit(cross(derivative(t), second_derivative(t)))
        normal = cross(binormal, tangent)
        # A gentle swelling along the knot makes the size field vary.
        r = RADIUS * (1.0 + 0.25 * math.sin(3 * t))
        row = []
        for j in range(AROUND):
            phi = 2 * math.pi * j / AROUND
            p = tuple(c[k] + r * (math.cos(phi) * normal[k] + math.sin(phi) * binormal[k]) for k in range(3))
            # Round to single precision once, so shared vertices are bitwise equal.
            row.append(tuple(struct.unpack("<3f", struct.pack("<3f", *p))))
        ring.append((c, row))

    facets = []
    for i in range(ALONG):
        c, row = ring[i]
        _, nxt = ring[(i + 1) % ALONG]
        for j in range(AROUND):
            a, b = row[j], row[(j + 1) % AROUND]
            d, e = nxt[j], nxt[(j + 1) % AROUND]
            for tri in ((a, d, e), (a, e, b)):
                n = cross(sub(tri[1], tri[0]), sub(tri[2], tri[0]))
                outward = sub(tri[0], c)
                if sum(x * y for x, y in zip(n, outward)) < 0:
                    tri = (tri[0], tri[2], tri[1])
                    n = tuple(-x for x in n)
                facets.append((unit(n), tri))

    with open(out, "wb") as f:
        f.write(b"nodara sample: trefoil knot tube".ljust(80, b"\0"))
        f.write(struct.pack("<I", len(facets)))
        for n, tri in facets:
            f.write(struct.pack("<3f", *n))
            for p in tri:
                f.write(struct.pack("<3f", *p))
            f.write(b"\0\0")


if __name__ == "__main__":
    main()
