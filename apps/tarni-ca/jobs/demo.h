// The demo job: `tarni-ca demo [-o DIR]` shows the whole road without any input file.
#pragma once

namespace tarni::host {

// Runs the job; argv[0] is "demo", the module must already be loaded. Generates a walking
// humanoid, retargets the walk onto a second generated skeleton, key-reduces the result and
// writes into DIR (default ./tarni-ca-demo) the BVH files, the reduced curves and an SVG of both
// characters side by side, then prints what it did. Returns 0, 2 for bad usage, 1 on failure.
int RunDemo(int argc, char** argv);

}  // namespace tarni::host
