// The retarget job: `tarni-ca retarget SOURCE.bvh... --target TARGET.bvh -o OUT [options]` moves
// the motion of each source clip onto the target's skeleton with the module's character solver.
#pragma once

namespace tarni::host {

// Runs the job; argv[0] is "retarget", the module must already be loaded. One source writes OUT
// as a BVH file; several write one file each into the folder OUT, on several threads. Every file
// is written atomically. Returns 0 when every source was retargeted, 2 for bad usage or when any
// input was bad (each reported with its file, line or joint; the other sources still finish),
// 1 for any other failure.
int RunRetarget(int argc, char** argv);

}  // namespace tarni::host
