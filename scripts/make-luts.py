#!/usr/bin/env python3
"""Writes the colour lookup tables vorn ships, as .cube files made from formulas here:
    scripts/make-luts.py [FOLDER]   (default: $VORN_DATA_DIR/LUTs, else build/sample/data/LUTs)
The LUT mapping effect finds a bare file name in <data folder>/LUTs."""
import os
import sys


def clamp(v, lo=0.0, hi=1.0):
    return min(max(v, lo), hi)


def s_curve(x, strength):
    """Contrast around mid grey that keeps black and white: a blend towards a smoothstep."""
    x = clamp(x)
    return x + strength * (x * x * (3.0 - 2.0 * x) - x)


def luma(r, g, b):
    return 0.2126 * r + 0.7152 * g + 0.0722 * b


def warm_film(r, g, b):
    """Faded blacks, a gentle S-curve, warm highlights over slightly cool shadows, highlights
    a little desaturated as on print film."""
    y = luma(r, g, b)
    r, g, b = (s_curve(c, 0.35) for c in (r, g, b))
    warm = 0.06 * (y - 0.4)
    r, g, b = r + warm, g + 0.3 * warm, b - warm
    y2 = luma(r, g, b)
    keep = 1.0 - 0.25 * clamp((y2 - 0.6) / 0.4)
    r, g, b = (y2 + (c - y2) * keep for c in (r, g, b))
    lift = 0.04
    return tuple(clamp(lift + (1.0 - lift - 0.02) * c) for c in (r, g, b))


def contrast_bw(r, g, b):
    """Black and white through a red-leaning channel mix (darker skies, bright skin), then a
    strong S-curve."""
    y = clamp(0.45 * r + 0.45 * g + 0.10 * b)
    y = s_curve(s_curve(y, 0.8), 0.5)
    return (y, y, y)


def identity(r, g, b):
    return (r, g, b)


def write_3d(path, title, size, look):
    top = size - 1
    with open(path, "w", encoding="ascii") as out:
        out.write(f'# Made by scripts/make-luts.py\nTITLE "{title}"\nLUT_3D_SIZE {size}\n')
        out.write("DOMAIN_MIN 0.0 0.0 0.0\nDOMAIN_MAX 1.0 1.0 1.0\n")
        for bi in range(size):
            for gi in range(size):
                for ri in range(size):
                    rgb = look(ri / top, gi / top, bi / top)
                    out.write("%.6f %.6f %.6f\n" % rgb)


def write_1d(path, title, size):
    """A soft S-curve with a slightly warm toe: blue lifted less than red."""
    top = size - 1
    with open(path, "w", encoding="ascii") as out:
        out.write(f'# Made by scripts/make-luts.py\nTITLE "{title}"\nLUT_1D_SIZE {size}\n')
        for i in range(size):
            x = i / top
            base = s_curve(x, 0.3)
            lifts = (0.03, 0.025, 0.015)
            out.write("%.6f %.6f %.6f\n" % tuple(l + (1.0 - l) * base for l in lifts))


def main():
    default = os.path.join(os.environ.get("VORN_DATA_DIR") or "build/sample/data", "LUTs")
    folder = sys.argv[1] if len(sys.argv) > 1 else default
    os.makedirs(folder, exist_ok=True)
    write_3d(os.path.join(folder, "identity_33.cube"), "Identity", 33, identity)
    write_3d(os.path.join(folder, "warm_film.cube"), "Warm film", 33, warm_film)
    write_3d(os.path.join(folder, "contrast_bw.cube"), "High-contrast black and white", 33,
             contrast_bw)
    write_1d(os.path.join(folder, "soft_curve_1d.cube"), "Soft curve", 1024)
    print(f"make-luts: 4 tables in {folder}")


if __name__ == "__main__":
    main()
