// Fiber results as the desktop program keeps them after a run: the selected half-lines
// as polylines in voxel coordinates, what the viewer gets as 3D objects and what the
// "Voxelize visible tracklines as" commands turn into volumes and voxel groups.
#pragma once

#include <cstdint>
#include <vector>

#include "fiber/trakline.h"
#include "study/roi_object.h"
#include "vol/serialize.h"

using PcdPolyline = std::vector<PcdVector3D>;

// The half-lines of every selected pair (selection word nonzero), in packed order: the
// forward half-line, then the backward one, each from its seed outward. Half-lines
// holding only the seed are kept, so the count is twice the selected pairs.
std::vector<PcdPolyline> PCD_GetSelectedHalfLines(const PcdFibeTrakBuffer* buffer);

// One polyline object per half-line, enabled, colour (1, 1, 1, 1): object 21 for
// hairlines (32 bytes: int32 k, int32 0, the bounding box min x, y, z and max x, y, z
// as floats; then k points), object 31 for tubes (int32 k, then per point the position
// and the unit direction to the next point, 6 floats).
PcdObjectGroup PCD_BuildPolylineObjectGroup(const std::vector<PcdPolyline>& lines, bool tubular);

// How many lines pass through each voxel (x fastest) of a volume of this size: each
// segment is walked in steps of at most a quarter voxel and a line counts once per
// voxel. Nodes outside the volume are skipped.
std::vector<uint32_t> PCD_CountLinesPerVoxel(const std::vector<PcdPolyline>& lines,
                                             const PcdIntSize3D* size);
// The mean absolute direction of the line segments in each voxel, as packed RGBA (red in
// the top byte: |dx|, |dy|, |dz| scaled to 255, alpha 255); 0 where no line passes.
std::vector<uint32_t> PCD_DirectionColorsPerVoxel(const std::vector<PcdPolyline>& lines,
                                                  const PcdIntSize3D* size);
