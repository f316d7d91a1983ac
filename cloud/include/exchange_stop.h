// How a daemon ends the HTTP exchanges of its process, for instance at SIGTERM.
#pragma once

namespace lumo {

// Ends every exchange of this process that runs, within about a second, and every one that begins, at once, until
// resumeExchanges is called. Such an exchange fails with CurlException "curl error occurred in curl_easy_perform: %s
// (%d)" with libcurl's words for CURLE_ABORTED_BY_CALLBACK and 42, and is not repeated. It does not interrupt a search
// in the directory or a request to a KDC that belongs to an exchange; these have limits of their own.
// Any thread, and a signal handler too.
void stopExchanges() noexcept;

// Exchanges may begin again. Any thread, and a signal handler too.
void resumeExchanges() noexcept;

}  // namespace lumo
