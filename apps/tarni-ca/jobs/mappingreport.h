// The inspect job: `tarni-ca inspect FILE.bvh [--preset NAME|FILE.json]` shows how a preset cuts a
// skeleton into body parts, so a user can see and fix a mapping.
#pragma once

namespace tarni::host {

// Runs the job; argv[0] is "inspect", the module must already be loaded. Prints the skeleton
// tree, the frames and frame rate, the joints each body part picks, the joints none picks and
// the match count of every preset. Returns 0, or 2 for bad usage or a bad file.
int RunInspect(int argc, char** argv);

}  // namespace tarni::host
