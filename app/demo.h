// The main job shown to a newcomer: on the loaded DWI data set the maps are computed, a
// spherical ROI is put in the straight bundle (along x through the volume's middle, as
// the generated phantom has it) and seeds a fiber tracking study, and a voxel statistics
// study runs over a box around it, each through " Analyze and Display ". The views show
// the fibers over the directional colour map.
#pragma once

#include <string>

struct PcdDemoOptions {
  std::string shotDir;     // when not empty: views-fibers.png, summary.png and the like go here
  bool allKinds = false;   // fiber modeling and a diffusion profile too (the bench's run)
};

// Runs the demonstration's studies; prints "Demo: <study label>: <seconds> s (<first line
// of its summary>)" for each on the console. False (with a "Warning: " line) when the data set is not ready for it.
bool PCD_RunDemo(const PcdDemoOptions& options);
