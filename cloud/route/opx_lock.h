// The lock of the process's platform client: the web proxy setting and the events that wait to be reported. Internal.
#pragma once

#include "base/include/mutex.h"

// Held while the credential file is read; never while a connector is asked for or something is sent.
extern lumo::Mutex opxLock;
