#pragma once
// The sample data set of `bundle-tool demo`: every kind of mesh the library
// holds, over 50 time steps.

#include "bundle/Bundle.hpp"

namespace Quaril::Tools {

/// A bundle of 50 time steps (t = 0, 0.02, ..., 0.98) holding
///  - "fluid": a uniform 16^3 grid with the analytic scalar "pressure"
///    (double) and vector "velocity" (tvector) at its vertices;
///  - "particles": 64 points moving on a spiral, with their "speed" (float);
///  - "surface": a triangulated square whose cells carry their "area" (float);
///  - "refined": a uniform 8^3 grid with two refinement levels and a
///    "density" (double) on the coarsest level, every tenth step, a child of
///    "fluid";
///  - "blocks": a uniform grid in four fragments (blocks) with the block
///    number "rank" (int32) at the vertices.
/// Bundle and slice attributes name the run and the cycle. Never fails.
BundlePtr makeDemoBundle();

}  // namespace Quaril::Tools
