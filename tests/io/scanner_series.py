#!/usr/bin/python3
"""Writes a diffusion series as scanners store it, with pydicom, for the import tests.

Usage: scanner_series.py DIR EXPECTED_PREFIX '{"layout": "mosaic", ...}'

The phantom: voxel (i, j) of the slice at anatomical index a (0 = lowest along the normal
row x column) holds a diffusion tensor with eigenvalues 1.7e-3, 0.3e-3, 0.3e-3 mm^2/s
whose principal axis (in the patient frame) is E_LEFT where i < x/2 and E_RIGHT
elsewhere; S0 = 1000 + 20 a + 5 j, and channel (b, g) holds round(S0 exp(-b g.D.g)).
A trace channel holds round(S0 exp(-b trace(D)/3)).

Layouts: "classic" (one slice per file; vendor "standard", "siemens", "ge", "philips" or
"canon" decides where the diffusion goes), "mosaic" (Siemens, CSA header written byte by
byte in its SV10 layout) and "enhanced" (one multi-frame file, per-frame functional
groups). EXPECTED_PREFIX.raw receives the volume the import must give (int16, channels
b = 0 first and trace channels dropped, then z along the normal, y, x), and
EXPECTED_PREFIX.json its b values, directions in image axes, principal axes in image
axes and FA. Exit status 77 without pydicom.
"""
import json
import math
import os
import struct
import sys

try:
    import numpy as np
    import pydicom
    from pydicom.dataset import Dataset, FileDataset, FileMetaDataset
    from pydicom.sequence import Sequence
    from pydicom.uid import ExplicitVRLittleEndian, ImplicitVRLittleEndian, generate_uid
except ImportError:
    sys.exit(77)

MR = "1.2.840.10008.5.1.4.1.1.4"
ENHANCED_MR = "1.2.840.10008.5.1.4.1.1.4.1"
L_PAR, L_PERP = 1.7e-3, 0.3e-3


def unit(v):
    v = np.asarray(v, dtype=float)
    return v / np.linalg.norm(v)


E_LEFT = unit([1, 2, 3])
E_RIGHT = unit([-2, 1, 0.5])
DIRECTIONS = [unit(v) for v in ([1, 0, 1], [-1, 0, 1], [0, 1, 1], [0, 1, -1], [1, 1, 0], [-1, 1, 0],
                                 [0.48, 0.6, 0.64])]


def tensor(e):
    return L_PERP * np.eye(3) + (L_PAR - L_PERP) * np.outer(e, e)


def fa(values):
    m = sum(values) / 3
    return math.sqrt(1.5 * sum((v - m) ** 2 for v in values) / sum(v * v for v in values))


def spread_directions(n):
    """n directions on a half sphere (a Fibonacci spiral), for the larger benchmark series."""
    out = []
    for k in range(n):
        z = 1 - (k + 0.5) / n
        phi = k * math.pi * (3 - math.sqrt(5))
        out.append(unit([math.sqrt(1 - z * z) * math.cos(phi), math.sqrt(1 - z * z) * math.sin(phi), z]))
    return out


def channels_of(o):
    """(b, direction or None, kind) in acquisition order; kind: b0, dwi, trace."""
    directions = DIRECTIONS if o["directions"] == len(DIRECTIONS) else spread_directions(o["directions"])
    chans = [(1000.0, g, "dwi") for g in directions]
    chans.insert(o["b0_position"], (0.0, None, "b0"))
    if o["trace"]:
        chans.insert(o["trace_position"], (1000.0, None, "trace"))
    return chans


def signal(o, a, c, chans):
    b, g, kind = chans[c]
    y, x = np.mgrid[0:o["y"], 0:o["x"]]
    s0 = 1000.0 + 20 * a + 5 * y
    out = np.empty((o["y"], o["x"]))
    for e, mask in ((E_LEFT, x < o["x"] // 2), (E_RIGHT, x >= o["x"] // 2)):
        d = tensor(e)
        if kind == "b0":
            att = 1.0
        elif kind == "trace":
            att = math.exp(-b * np.trace(d) / 3)
        else:
            att = math.exp(-b * g @ d @ g)
        out[mask] = (s0 * att)[mask]
    return np.rint(out).astype(np.int64)


def csa_header(fields):
    """Siemens CSA image header, SV10 layout: "SV10", 4 bytes, tag count, 77; per tag a
    64-byte name, vm, 4-byte VR, syngodt, item count, 77; per item four int32 (the second
    is the length), then the value padded to a multiple of 4."""
    out = b"SV10" + b"\x04\x03\x02\x01" + struct.pack("<2I", len(fields), 77)
    for name, vr, values in fields:
        out += name.encode().ljust(64, b"\0")
        out += struct.pack("<i4sii", len(values), vr.encode().ljust(4, b"\0"), 3, len(values)) + struct.pack("<i", 77)
        for v in values:
            text = (v if isinstance(v, str) else "%.8f" % v).encode() + b"\0"
            out += struct.pack("<4i", len(text), len(text), 77, len(text)) + text + b"\0" * (-len(text) % 4)
    return out


def base_dataset(o, name, sop_class, series_uid, study_uid, number, description):
    meta = FileMetaDataset()
    meta.MediaStorageSOPClassUID = sop_class
    meta.MediaStorageSOPInstanceUID = generate_uid()
    meta.TransferSyntaxUID = ImplicitVRLittleEndian if o["implicit"] else ExplicitVRLittleEndian
    ds = FileDataset(name, {}, file_meta=meta, preamble=b"\0" * 128)
    ds.is_little_endian = True
    ds.is_implicit_VR = o["implicit"]
    ds.SOPClassUID = sop_class
    ds.SOPInstanceUID = meta.MediaStorageSOPInstanceUID
    ds.StudyInstanceUID, ds.SeriesInstanceUID = study_uid, series_uid
    ds.Modality = "MR"
    ds.StudyDate = "20240131"
    ds.InstitutionName = "Test Hospital"
    ds.Manufacturer = {"siemens": "SIEMENS", "ge": "GE MEDICAL SYSTEMS", "philips": "Philips Medical Systems",
                       "canon": "CANON_MEC", "standard": "ACME"}[o["vendor"]]
    ds.ManufacturerModelName = "Model"
    ds.PatientName = "Doe^Jane"
    ds.PatientID = "P0042"
    ds.SeriesNumber = str(number)
    ds.SeriesDescription = description
    ds.SamplesPerPixel = 1
    ds.PhotometricInterpretation = "MONOCHROME2"
    ds.BitsAllocated, ds.BitsStored, ds.HighBit = 16, 16, 15
    ds.PixelRepresentation = 0 if o["unsigned"] else 1
    return ds


def stored(o, values):
    raw = np.rint((values - o["intercept"]) / o["slope"]).astype(np.int64)
    return raw.astype("<u2" if o["unsigned"] else "<i2")


def add_vendor_diffusion(o, ds, b, g, kind):
    v = o["vendor"]
    gg = [0.0, 0.0, 0.0] if g is None else [float(t) for t in g]
    if v == "standard":
        ds.add_new(0x00189087, "FD", b)
        if g is not None:
            ds.add_new(0x00189089, "FD", gg)
    elif v == "siemens":
        ds.add_new(0x00190010, "LO", "SIEMENS MR HEADER")
        ds.add_new(0x0019100C, "IS", str(int(b)))
        if g is not None:
            ds.add_new(0x0019100E, "FD", gg)
    elif v == "ge":
        # GE states the direction in the image axes: along a row, up a column (against
        # the column direction), along the slice normal
        if g is not None:
            gg = [float(np.dot(g, ax)) for ax in o["axes"]]
            gg[1] = -gg[1]
        ds.add_new(0x00430010, "LO", "GEMS_PARM_01")
        ds.add_new(0x00431039, "IS", ["%d" % (b + 1e9 if o["ge_offset"] else b), "8", "0", "0"])
        ds.add_new(0x00190010, "LO", "GEMS_ACQU_01")
        for k, e in enumerate((0x001910BB, 0x001910BC, 0x001910BD)):
            ds.add_new(e, "DS", "%.6f" % gg[k])
    elif v == "philips":
        ds.add_new(0x20010010, "LO", "Philips Imaging DD 001")
        ds.add_new(0x20011003, "FL", b)
        ds.add_new(0x20011004, "CS", "I" if kind == "trace" else ("O" if kind == "dwi" else "N"))
        ds.add_new(0x20050010, "LO", "Philips MR Imaging DD 001")
        for k, e in enumerate((0x200510B0, 0x200510B1, 0x200510B2)):
            ds.add_new(e, "FL", gg[k])
    elif v == "canon":
        ds.ImageComments = "b=%d(%.6f,%.6f,%.6f)" % (b, gg[0], gg[1], gg[2]) if g is not None else "b=%d" % b


def set_pixels(ds, data):
    ds.Rows, ds.Columns = data.shape[-2], data.shape[-1]
    ds.add_new(0x7FE00010, "OW", data.tobytes())


def main():
    out, prefix = sys.argv[1], sys.argv[2]
    o = {"layout": "classic", "vendor": "standard", "x": 6, "y": 5, "slices": 4, "pixel": 2.0, "spacing": 2.0,
         "orientation": [0.866025, 0.5, 0, -0.5, 0.866025, 0], "origin": [-10.0, 20.0, 30.0], "implicit": False,
         "b0_position": 0, "trace": False, "trace_position": 8, "unsigned": False, "slope": 1.0, "intercept": 0.0,
         "reverse_normal": False, "localizer": False, "ge_offset": False,
         "directions": len(DIRECTIONS)}
    o.update(json.loads(sys.argv[3]) if len(sys.argv) > 3 else {})
    os.makedirs(out, exist_ok=True)
    r, cdir = np.array(o["orientation"][:3]), np.array(o["orientation"][3:])
    r, cdir = unit(r), unit(cdir)
    n = np.cross(r, cdir)
    o["axes"] = [r, cdir, n]
    Z, X, Y = o["slices"], o["x"], o["y"]
    chans = channels_of(o)
    C = len(chans)
    study = generate_uid()
    series = generate_uid()
    pos = lambda a: np.array(o["origin"]) + a * o["spacing"] * n
    iop = ["%.6f" % v for v in o["orientation"]]
    volume = {(a, c): signal(o, a, c, chans) for a in range(Z) for c in range(C)}
    instance = 0

    if o["layout"] == "classic":
        for c in range(C):
            for a in range(Z):
                instance += 1
                name = os.path.join(out, "IM%07d" % (instance * 7919 % 1000003))  # not in instance order
                ds = base_dataset(o, name, MR, series, study, 5, "ep2d_diff")
                ds.InstanceNumber = str(instance)
                ds.ImagePositionPatient = ["%.4f" % v for v in pos(a)]
                ds.ImageOrientationPatient = iop
                ds.PixelSpacing = ["%g" % o["pixel"]] * 2
                ds.SliceThickness = "%g" % o["spacing"]
                if o["slope"] != 1.0 or o["intercept"] != 0.0:
                    ds.RescaleIntercept, ds.RescaleSlope = "%g" % o["intercept"], "%g" % o["slope"]
                add_vendor_diffusion(o, ds, chans[c][0], chans[c][1], chans[c][2])
                set_pixels(ds, stored(o, volume[(a, c)]))
                ds.save_as(name, write_like_original=False)
    elif o["layout"] == "mosaic":
        m = int(math.ceil(math.sqrt(Z)))
        # tile k holds anatomical slice k, or Z-1-k when the CSA normal runs against row x column
        order = list(range(Z)) if not o["reverse_normal"] else list(reversed(range(Z)))
        normal = n if not o["reverse_normal"] else -n
        first = pos(order[0])
        corner = first - r * o["pixel"] * (m * X - X) / 2 - cdir * o["pixel"] * (m * Y - Y) / 2
        for c in range(C):
            b, g, kind = chans[c]
            mosaic = np.zeros((m * Y, m * X), dtype=np.int64)
            for k, a in enumerate(order):
                ty, tx = divmod(k, m)
                mosaic[ty * Y:(ty + 1) * Y, tx * X:(tx + 1) * X] = volume[(a, c)]
            instance += 1
            name = os.path.join(out, "MR%04d.dcm" % instance)
            ds = base_dataset(dict(o, vendor="siemens"), name, MR, series, study, 5, "ep2d_diff_mosaic")
            ds.ImageType = ["ORIGINAL", "PRIMARY", "DIFFUSION", "NONE", "ND", "MOSAIC"]
            ds.InstanceNumber = str(instance)
            ds.AcquisitionNumber = str(instance)
            ds.ImagePositionPatient = ["%.4f" % v for v in corner]
            ds.ImageOrientationPatient = iop
            ds.PixelSpacing = ["%g" % o["pixel"]] * 2
            ds.SliceThickness = "%g" % o["spacing"]
            ds.SpacingBetweenSlices = "%g" % o["spacing"]
            fields = [("NumberOfImagesInMosaic", "US", ["%d" % Z]),
                      ("SliceNormalVector", "FD", list(normal)),
                      ("B_value", "IS", ["%d" % b])]
            if g is not None:
                fields.append(("DiffusionGradientDirection", "FD", list(g)))
            ds.add_new(0x00290010, "LO", "SIEMENS CSA HEADER")
            ds.add_new(0x00291008, "CS", "IMAGE NUM 4")
            ds.add_new(0x00291010, "OB", csa_header(fields))
            ds.add_new(0x00190010, "LO", "SIEMENS MR HEADER")
            ds.add_new(0x0019100A, "US", Z)
            ds.add_new(0x0019100C, "IS", str(int(b)))
            if g is not None:
                ds.add_new(0x0019100E, "FD", [float(t) for t in g])
            set_pixels(ds, stored(o, mosaic))
            ds.save_as(name, write_like_original=False)
    elif o["layout"] == "enhanced":
        name = os.path.join(out, "ENH0001.dcm")
        ds = base_dataset(o, name, ENHANCED_MR, series, study, 5, "dwi_enhanced")
        ds.InstanceNumber = "1"
        ds.ImageType = ["ORIGINAL", "PRIMARY", "DIFFUSION", "NONE"]
        ds.NumberOfFrames = str(Z * C)
        shared = Dataset()
        pm = Dataset()
        pm.PixelSpacing = ["%g" % o["pixel"]] * 2
        pm.SliceThickness = "%g" % o["spacing"]
        pm.SpacingBetweenSlices = "%g" % o["spacing"]
        shared.PixelMeasuresSequence = Sequence([pm])
        po = Dataset()
        po.ImageOrientationPatient = iop
        shared.PlaneOrientationSequence = Sequence([po])
        ds.SharedFunctionalGroupsSequence = Sequence([shared])
        dim = []
        for label, pointer in (("b", 0x00189087), ("pos", 0x00209057)):
            item = Dataset()
            item.DimensionIndexPointer = pointer
            item.FunctionalGroupPointer = 0x00189117 if label == "b" else 0x00209111
            dim.append(item)
        ds.DimensionIndexSequence = Sequence(dim)
        frames, data = [], []
        for c in range(C):
            b, g, kind = chans[c]
            for a in range(Z):
                f = Dataset()
                pp = Dataset()
                pp.ImagePositionPatient = ["%.4f" % v for v in pos(a)]
                f.PlanePositionSequence = Sequence([pp])
                fc = Dataset()
                fc.StackID = "1"
                fc.InStackPositionNumber = a + 1
                fc.TemporalPositionIndex = c + 1
                fc.DimensionIndexValues = [c + 1, a + 1]
                f.FrameContentSequence = Sequence([fc])
                md = Dataset()
                md.add_new(0x00189087, "FD", b)
                md.DiffusionDirectionality = {"b0": "NONE", "dwi": "DIRECTIONAL", "trace": "ISOTROPIC"}[kind]
                if g is not None:
                    gd = Dataset()
                    gd.add_new(0x00189089, "FD", [float(t) for t in g])
                    md.DiffusionGradientDirectionSequence = Sequence([gd])
                f.MRDiffusionSequence = Sequence([md])
                pv = Dataset()
                pv.RescaleIntercept, pv.RescaleSlope, pv.RescaleType = "%g" % o["intercept"], "%g" % o["slope"], "US"
                f.PixelValueTransformationSequence = Sequence([pv])
                frames.append(f)
                data.append(stored(o, volume[(a, c)]))
        ds.PerFrameFunctionalGroupsSequence = Sequence(frames)
        set_pixels(ds, np.stack(data))
        ds.save_as(name, write_like_original=False)

    if o["localizer"]:
        loc = generate_uid()
        for a in range(3):
            name = os.path.join(out, "LOC%03d" % a)
            ds = base_dataset(dict(o, vendor=o["vendor"]), name, MR, loc, study, 1, "localizer")
            ds.InstanceNumber = str(a + 1)
            ds.ImagePositionPatient = ["%.4f" % v for v in (0.0, 0.0, 10.0 * a)]
            ds.ImageOrientationPatient = ["1", "0", "0", "0", "1", "0"]
            ds.PixelSpacing = ["4", "4"]
            set_pixels(ds, np.full((8, 8), 100 + a, dtype="<u2" if o["unsigned"] else "<i2"))
            ds.save_as(name, write_like_original=False)

    # what the import must give: b = 0 channels first, trace channels dropped
    keep = [c for c in range(C) if chans[c][2] == "b0"] + [c for c in range(C) if chans[c][2] == "dwi"]
    expected = np.stack([np.stack([volume[(a, c)] for a in range(Z)]) for c in keep]).astype("<i2")
    expected.tofile(prefix + ".raw")
    axes = [r, cdir, n]
    info = {"x": X, "y": Y, "z": Z, "channels": len(keep),
            "b": [chans[c][0] for c in keep],
            "directions": [[0, 0, 0] if chans[c][1] is None else [float(np.dot(chans[c][1], ax)) for ax in axes]
                           for c in keep],
            "e_left": [float(np.dot(E_LEFT, ax)) for ax in axes],
            "e_right": [float(np.dot(E_RIGHT, ax)) for ax in axes],
            "fa": fa([L_PAR, L_PERP, L_PERP]),
            "origin_lps": list(o["origin"]), "axes": [list(map(float, ax)) for ax in axes]}
    with open(prefix + ".json", "w") as f:
        json.dump(info, f)


main()
