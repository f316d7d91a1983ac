// A scripted HTTP server on loopback: proxy, web server, or both on one connection, as the test's handler says.
#pragma once

#include <openssl/ssl.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace testsupport {

struct HttpRequest {
  int connection = 0;  // number of the connection, from 0 in the order of accepting
  int number = 0;      // number of the request on its connection, from 0
  bool tls = false;    // it came through TLS
  std::string head;    // raw: request line and headers with their line endings, and the empty line
  std::string body;    // as long as Content-Length says, or the decoded chunks

  std::string method() const;
  std::string target() const;
  // The value of the first header of that name (compared without case), empty when there is none.
  std::string header(const std::string& name) const;
};

struct HttpReply {
  enum Then { KeepOpen, Close, StartTls, Silence };
  std::string bytes;     // sent as they stand; the handler writes status line, headers and body
  Then then = KeepOpen;  // Silence: nothing more is read or sent until the client hangs up or the server goes
  // Where there is one: gives what is sent behind `bytes`, piece after piece, until it gives nothing, the client hangs
  // up or the server goes. Called on the connection's thread.
  std::function<std::string()> more = {};
};

// "HTTP/1.1 STATUS\r\n", the header lines, a Content-Length and the body.
HttpReply httpReply(const std::string& status, const std::vector<std::string>& headerLines = {},
                    const std::string& body = {});
// The answer of a proxy that opens a tunnel; with `tls` the server itself is the TLS peer at its end.
HttpReply tunnelReply(bool tls = false);

// A certificate and its key in PEM files.
struct Certificate {
  std::string certificateFile;
  std::string keyFile;
};

struct CertificateOptions {
  std::string name = "localhost";  // common name, and DNS name of the subject
  std::string address;             // IP address of the subject where it is not empty
  long startsIn = -86400;          // validity, in seconds from now
  long endsIn = 86400;
  const Certificate* issuer = nullptr;  // null: self-signed
};

// Writes NAME.crt and NAME.key into the folder. Throws std::runtime_error.
Certificate makeCertificate(const std::string& folder, const std::string& fileName, const CertificateOptions& options);

// Listens on 127.0.0.1 (or `address`) on a free port from construction to destruction, one thread for each connection.
class HttpServer {
 public:
  // Called for each request, on the connection's thread.
  using Handler = std::function<HttpReply(const HttpRequest&)>;

  // TLS is what a reply's StartTls begins, or every connection from its first byte.
  enum Tls { OnReply, FromTheStart };

  explicit HttpServer(Handler handler, const Certificate* certificate = nullptr,
                      const std::string& address = "127.0.0.1", unsigned short port = 0, Tls tls = OnReply);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  unsigned short port() const { return m_port; }
  // "127.0.0.1:PORT".
  std::string address() const { return m_address + ":" + std::to_string(m_port); }
  // All requests so far.
  std::vector<HttpRequest> requests() const;
  int connections() const;
  // Those that came so far are told no more; a long run would keep them all.
  void forgetRequests();
  // Whether requests() tells of those that come from now on; it does unless this says no.
  void keepRequests(bool keep);
  // Waits until so many requests have come; false after the time.
  bool waitForRequests(size_t count, std::chrono::milliseconds limit) const;
  // Waits until so many connections are over, hung up by the client or closed here; false after the time.
  bool waitForEnds(size_t count, std::chrono::milliseconds limit) const;

 private:
  class Stream;

  void acceptAll();
  void joinEnded();
  void serve(int fd, int number);
  void answerAll(Stream& stream, int number);
  bool answer(Stream& stream, HttpRequest& request);

  Handler m_handler;
  std::string m_address;
  unsigned short m_port = 0;
  int m_listener = -1;
  Tls m_start = OnReply;
  int m_stop = -1;  // an eventfd, readable once everything is to end
  std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> m_tls{nullptr, &SSL_CTX_free};
  mutable std::mutex m_mutex;
  mutable std::condition_variable m_changed;
  bool m_keepsRequests = true;
  std::vector<HttpRequest> m_requests;
  int m_connections = 0;
  size_t m_ended = 0;
  std::vector<int> m_over;               // numbers of connections whose thread has nothing left to do
  std::map<int, std::thread> m_clients;  // of the accepting thread, and of the destructor after it
  std::thread m_acceptor;
};

}  // namespace testsupport
