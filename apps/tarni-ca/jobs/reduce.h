// The reduce job: `tarni-ca reduce INPUT -o OUTPUT.json [options]` reduces the keys of animation
// curves with the module's curve commands and reports how far the reduced curves stray.
#pragma once

namespace tarni::host {

// Runs the job; argv[0] is "reduce", the module must already be loaded. Reads INPUT (a BVH clip
// or a JSON curve file), runs the Bezier fitter (or the reduced-modification-curve command) on
// every curve, writes OUTPUT atomically as a JSON curve file and prints a summary on standard
// output. Returns 0 when done, 2 for bad usage or bad input (one message naming the file, the line
// and what was expected; no output file is left behind), 1 for any other failure.
int RunReduce(int argc, char** argv);

}  // namespace tarni::host
