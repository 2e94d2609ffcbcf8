// Tract files for other tools: MRtrix .tck (world millimetres) and TrackVis .trk (voxel
// millimetres with the voxel-to-RAS matrix in the header). Every selected fiber is
// written end to end through its seed, as in the tracking dump.
//
// Fiber nodes are voxel index coordinates: tracking samples voxel (i, j, k) at the point
// (i, j, k) (fiber/tracking.h), as NIfTI matrices and MRtrix address voxel centres, so a
// node goes through the matrix as it is; TrackVis voxel millimetres start at the volume's
// corner, half a voxel before the first centre.
#pragma once

#include "fiber/trakline.h"
#include "io/nifti_file.h"

// 0, or -1 with an "Err: " line. Only pairs whose selection word is nonzero are written.
int WriteTckFile(const PcdFibeTrakBuffer* buffer, const PcdWorldGeometry* geometry,
                 const char* fileName);
int WriteTrkFile(const PcdFibeTrakBuffer* buffer, const PcdWorldGeometry* geometry,
                 const PcdIntSize4D* size, const char* fileName);
