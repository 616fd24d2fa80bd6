// The host process's heap policy for batch jobs.
#pragma once

namespace tarni::host {

// Makes the C library keep the memory of freed file-sized buffers for the next clip instead of
// handing it back to the system at once. Each clip reads, builds and writes buffers of a few
// megabytes; handed back and asked for again, every page of them is faulted in anew for every
// clip, which takes longer than parsing, solving and writing together. The memory kept is bounded
// by the largest clip's buffers per worker. Call once at start-up, before any thread is started;
// does nothing where the C library has no such setting.
void KeepFreedMemoryForReuse();

}  // namespace tarni::host
