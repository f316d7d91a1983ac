// Initialises the HTTP transport (libcurl) of the process.
#pragma once

namespace lumo {

// Initialises libcurl for the process, once, so that memory that libcurl gives back is wiped: libcurl itself copies
// proxy passwords, cookies and request lines into ordinary heap memory. Every CurlObject calls it, so a call of your
// own is needed only to choose when it happens: libcurl and its TLS library read their configuration and the
// environment then. A program that uses libcurl itself calls this function first: whoever initialises libcurl first
// decides about its memory.
//
// Throws: CurlException "Failed to create curl context" when libcurl cannot be initialised, on every further call too.
// Threads: any; calls at the same time wait for the first one.
void startTransport();

}  // namespace lumo
