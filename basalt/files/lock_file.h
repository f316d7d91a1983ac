// A lock that a running agent holds.
#pragma once

// Tries the lock at path (flock, the file is made with mode 0600 when missing). Returns a handle, or -1. *state: 0 the
// lock was free and is now held by the handle; -1 the probe failed; any other value: somebody else holds it (the handle
// is then valid and holds nothing). Any thread.
int MvdLock(const char* path, int* state);

// Gives the lock back and closes the handle.
void MvdUnlock(int handle);
