#!/usr/bin/python3
"""Writes an MR series with pydicom (an independent DICOM writer) for the import tests.

Usage: dicom_series.py DIR '{"x": 4, "y": 3, ...}'   (options as JSON, all optional)

Voxel (x, y) of the slice at anatomical index a (0 = lowest along the slice normal) in
channel c holds  c*1000 + a*100 + y*10 + x - 500 + value_offset (as unsigned 16-bit words
with pixel_representation 0).  Exit status 77 without pydicom.
"""
import json
import os
import sys

try:
    import numpy as np
    import pydicom
    from pydicom.dataset import Dataset, FileDataset, FileMetaDataset
    from pydicom.sequence import Sequence
    from pydicom.uid import ExplicitVRLittleEndian, ImplicitVRLittleEndian, generate_uid
except ImportError:
    sys.exit(77)

MR_IMAGE_STORAGE = "1.2.840.10008.5.1.4.1.1.4"


def voxel_values(o, a, c):
    y, x = np.mgrid[0:o["y"], 0:o["x"]]
    v = c * 1000 + a * 100 + y * 10 + x - 500 + o["value_offset"]
    return v.astype("<u2" if o["pixel_representation"] == 0 else "<i2")


def cross(r, c):
    return [r[1] * c[2] - r[2] * c[1], r[2] * c[0] - r[0] * c[2], r[0] * c[1] - r[1] * c[0]]


def main():
    out = sys.argv[1]
    o = {"x": 4, "y": 3, "slices": 3, "channels": 1, "order": "slice", "z_direction": 1,
         "pixel": 2.0, "spacing": 2.0, "dbs": True, "fov": True, "implicit": False,
         "preamble": True, "dicm_at_0": False, "skip_instance": 0, "orientation": [1, 0, 0, 0, 1, 0],
         "origin": [-10.0, 20.0, 30.0], "bvalues": None, "directions": None, "ob": False,
         "sequence": False, "pixel_spacing": True, "series_uid": None, "pixel_representation": 1,
         "value_offset": 0}
    o.update(json.loads(sys.argv[2]) if len(sys.argv) > 2 else {})
    os.makedirs(out, exist_ok=True)
    orientation = o["orientation"] or [1, 0, 0, 0, 1, 0]  # null: no orientation element
    r, cdir = orientation[:3], orientation[3:]
    n = cross(r, cdir)
    study, series = generate_uid(), o["series_uid"] or generate_uid()
    Z, C = o["slices"], o["channels"]
    files = []  # (anatomical slice, channel) in instance order
    slice_order = list(range(Z)) if o["z_direction"] > 0 else list(reversed(range(Z)))
    if o["order"] == "slice":
        files = [(a, c) for a in slice_order for c in range(C)]
    else:
        files = [(a, c) for c in range(C) for a in slice_order]
    for i, (a, c) in enumerate(files):
        number = i + 1
        if o["skip_instance"] and number >= o["skip_instance"]:
            number += 1
        meta = FileMetaDataset()
        meta.MediaStorageSOPClassUID = MR_IMAGE_STORAGE
        meta.MediaStorageSOPInstanceUID = generate_uid()
        meta.TransferSyntaxUID = ImplicitVRLittleEndian if o["implicit"] else ExplicitVRLittleEndian
        name = os.path.join(out, "IM%05d" % (1000 + 7 * i % 997))  # names not in instance order
        ds = FileDataset(name, {}, file_meta=meta, preamble=b"\0" * 128)
        ds.is_little_endian = True
        ds.is_implicit_VR = o["implicit"]
        ds.SOPClassUID = MR_IMAGE_STORAGE
        ds.SOPInstanceUID = meta.MediaStorageSOPInstanceUID
        ds.StudyInstanceUID, ds.SeriesInstanceUID = study, series
        ds.Modality = "MR"
        ds.StudyDate = "20240131"
        ds.InstitutionName = "Test Hospital"
        ds.Manufacturer = "ACME"
        ds.ManufacturerModelName = "Tesla 3"
        ds.PatientName = "Doe^Jane"
        ds.PatientID = "P0042"
        if o["dbs"]:
            ds.SpacingBetweenSlices = "%g" % o["spacing"]
        if o["fov"]:
            ds.ReconstructionDiameter = "%g" % (o["pixel"] * o["x"])
        if o["bvalues"] is not None:
            ds.add_new(0x00189087, "FD", float(o["bvalues"][c]))
            if o["directions"] is not None and o["directions"][c] is not None:
                ds.add_new(0x00189089, "FD", [float(v) for v in o["directions"][c]])
        if o["sequence"]:
            # an undefined-length sequence whose item holds elements the reader looks for
            item = Dataset()
            item.ReferencedSOPClassUID = MR_IMAGE_STORAGE
            item.ReferencedSOPInstanceUID = generate_uid()
            item.InstanceNumber = "999"
            item.add_new(0x7FE00010, "OB", b"\x01\x02")
            inner = Dataset()
            inner.InstanceNumber = "998"
            item.add_new(0x00081140, "SQ", Sequence([inner]))
            item["ReferencedImageSequence"].is_undefined_length = True  # nested, item of known length
            item.is_undefined_length_sequence_item = True
            ds.ReferencedImageSequence = Sequence([item])
            ds["ReferencedImageSequence"].is_undefined_length = True
        ds.InstanceNumber = str(number)
        pos = [o["origin"][k] + a * o["spacing"] * n[k] for k in range(3)]
        ds.ImagePositionPatient = ["%.4f" % v for v in pos]
        if o["orientation"]:
            ds.ImageOrientationPatient = ["%g" % v for v in o["orientation"]]
        ds.Rows, ds.Columns = o["y"], o["x"]
        if o["pixel_spacing"]:
            ds.PixelSpacing = ["%g" % o["pixel"], "%g" % o["pixel"]]
        ds.SamplesPerPixel = 1
        ds.PhotometricInterpretation = "MONOCHROME2"
        ds.BitsAllocated, ds.BitsStored, ds.HighBit = 16, 16, 15
        ds.PixelRepresentation = o["pixel_representation"]
        if o["ob"]:
            ds.add_new(0x00291010, "OB", bytes(range(7)) + b"\x41\x42\x00" * 40)  # private bytes
        ds.add_new(0x7FE00010, "OW", voxel_values(o, a, c).tobytes())
        if o["preamble"]:
            ds.save_as(name, write_like_original=False)
        else:
            ds.preamble = None
            ds.file_meta = FileMetaDataset()
            pydicom.filewriter.dcmwrite(name, ds, write_like_original=True)
        if o["dicm_at_0"]:
            with open(name, "rb") as f:
                data = f.read()
            with open(name, "wb") as f:
                f.write(data[128:])


main()
