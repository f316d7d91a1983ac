#include "testsupport/http_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

namespace testsupport {
namespace {

void require(bool good, const char* what) {
  if (!good) throw std::runtime_error(what);
}

std::string firstLineWord(const std::string& head, int index) {
  size_t start = 0;
  for (int i = 0; i < index; ++i) start = head.find(' ', start) + 1;
  return head.substr(start, head.find_first_of(" \r", start) - start);
}

}  // namespace

std::string HttpRequest::method() const { return firstLineWord(head, 0); }
std::string HttpRequest::target() const { return firstLineWord(head, 1); }

std::string HttpRequest::header(const std::string& name) const {
  for (size_t line = head.find('\n'); line != std::string::npos; line = head.find('\n', line + 1)) {
    const size_t start = line + 1;
    if (strncasecmp(head.c_str() + start, name.c_str(), name.size()) != 0) continue;
    if (head[start + name.size()] != ':') continue;
    const size_t value = head.find_first_not_of(" \t", start + name.size() + 1);
    return head.substr(value, head.find('\r', value) - value);
  }
  return {};
}

HttpReply httpReply(const std::string& status, const std::vector<std::string>& headerLines, const std::string& body) {
  std::string bytes = "HTTP/1.1 " + status + "\r\n";
  for (const auto& line : headerLines) bytes += line + "\r\n";
  bytes += "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  return {bytes, HttpReply::KeepOpen};
}

HttpReply tunnelReply(bool tls) {
  return {"HTTP/1.1 200 Connection established\r\n\r\n", tls ? HttpReply::StartTls : HttpReply::KeepOpen};
}

// One connection, plain or TLS, whose reads end when the server does.
class HttpServer::Stream {
 public:
  Stream(int fd, int stop) : m_fd(fd), m_stop(stop) {}
  ~Stream() {
    if (m_tls) SSL_shutdown(m_tls.get());
    close(m_fd);
  }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;

  bool isTls() const { return m_tls != nullptr; }
  bool isStopped() const {
    pollfd stop{m_stop, POLLIN, 0};
    return poll(&stop, 1, 0) > 0;
  }

  bool startTls(SSL_CTX* context) {
    m_tls.reset(SSL_new(context));
    SSL_set_fd(m_tls.get(), m_fd);
    for (;;) {
      const int accepted = SSL_accept(m_tls.get());
      if (accepted == 1) return true;
      if (!waitFor(SSL_get_error(m_tls.get(), accepted))) return false;
    }
  }

  // Appends what comes next; false at the end.
  bool readSome() {
    char buffer[16384];
    for (;;) {
      const int n =
          m_tls ? SSL_read(m_tls.get(), buffer, sizeof buffer) : static_cast<int>(recv(m_fd, buffer, sizeof buffer, 0));
      if (n > 0) {
        m_pending.append(buffer, static_cast<size_t>(n));
        return true;
      }
      if (!waitFor(m_tls ? SSL_get_error(m_tls.get(), n) : plainError(n))) return false;
    }
  }

  bool send(const std::string& bytes) {
    for (size_t sent = 0; sent < bytes.size();) {
      const size_t left = bytes.size() - sent;
      const int n = m_tls ? SSL_write(m_tls.get(), bytes.data() + sent, static_cast<int>(left))
                          : static_cast<int>(::send(m_fd, bytes.data() + sent, left, MSG_NOSIGNAL));
      if (n > 0) {
        sent += static_cast<size_t>(n);
      } else if (!waitFor(m_tls ? SSL_get_error(m_tls.get(), n) : plainError(n, SSL_ERROR_WANT_WRITE))) {
        return false;
      }
    }
    return true;
  }

  // The bytes up to and including the mark; empty when the connection ended before it.
  std::string takeThrough(const std::string& mark) {
    size_t end;
    while ((end = m_pending.find(mark)) == std::string::npos) {
      if (!readSome()) return {};
    }
    return take(end + mark.size());
  }
  std::string take(size_t count) {
    while (m_pending.size() < count) {
      if (!readSome()) break;
    }
    std::string taken = m_pending.substr(0, count);
    m_pending.erase(0, taken.size());
    return taken;
  }
  // Until the client hangs up or the server ends; what comes is dropped.
  void stayMute() {
    while (readSome()) m_pending.clear();
  }

 private:
  static int plainError(int n, int wanted = SSL_ERROR_WANT_READ) {
    return n < 0 && (errno == EAGAIN || errno == EINTR) ? wanted : SSL_ERROR_SYSCALL;
  }

  bool waitFor(int error) const {
    if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) return false;
    const short event = error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
    pollfd waiting[2] = {{m_fd, event, 0}, {m_stop, POLLIN, 0}};
    while (poll(waiting, 2, -1) < 0 && errno == EINTR) {
    }
    return waiting[1].revents == 0;
  }

  int m_fd;
  int m_stop;
  std::unique_ptr<SSL, void (*)(SSL*)> m_tls{nullptr, &SSL_free};
  std::string m_pending;
};

HttpServer::HttpServer(Handler handler, const Certificate* certificate, const std::string& address, unsigned short port,
                       Tls tls)
    : m_handler(std::move(handler)), m_address(address), m_start(certificate == nullptr ? OnReply : tls) {
  signal(SIGPIPE, SIG_IGN);  // TLS writes to a client that went away
  if (certificate != nullptr) {
    m_tls.reset(SSL_CTX_new(TLS_server_method()));
    require(SSL_CTX_use_certificate_chain_file(m_tls.get(), certificate->certificateFile.c_str()) == 1, "certificate");
    require(SSL_CTX_use_PrivateKey_file(m_tls.get(), certificate->keyFile.c_str(), SSL_FILETYPE_PEM) == 1, "key");
  }
  m_stop = eventfd(0, EFD_CLOEXEC);
  m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const int on = 1;
  setsockopt(m_listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_port = htons(port);
  require(inet_pton(AF_INET, address.c_str(), &name.sin_addr) == 1, "address");
  require(bind(m_listener, reinterpret_cast<sockaddr*>(&name), sizeof name) == 0, "bind");
  require(listen(m_listener, 64) == 0, "listen");
  socklen_t length = sizeof name;
  require(getsockname(m_listener, reinterpret_cast<sockaddr*>(&name), &length) == 0, "getsockname");
  m_port = ntohs(name.sin_port);
  m_acceptor = std::thread([this] { acceptAll(); });
}

HttpServer::~HttpServer() {
  const uint64_t one = 1;
  if (write(m_stop, &one, sizeof one) < 0) abort();
  m_acceptor.join();
  for (auto& [number, client] : m_clients) client.join();
  close(m_listener);
  close(m_stop);
}

void HttpServer::acceptAll() {
  for (;;) {
    pollfd waiting[2] = {{m_listener, POLLIN, 0}, {m_stop, POLLIN, 0}};
    if (poll(waiting, 2, -1) < 0) continue;
    if (waiting[1].revents != 0) return;
    const int fd = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) continue;
    // Behind what TLS sends of its own a reply would wait for the client's acknowledgement.
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    int number;
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      number = m_connections++;
    }
    joinEnded();
    m_clients.emplace(number, [this, fd, number] { serve(fd, number); });
  }
}

void HttpServer::joinEnded() {
  std::vector<int> over;
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    over.swap(m_over);
  }
  for (const int number : over) {
    const auto client = m_clients.find(number);
    client->second.join();
    m_clients.erase(client);
  }
}

void HttpServer::serve(int fd, int number) {
  {
    Stream stream(fd, m_stop);
    if (m_start == OnReply || stream.startTls(m_tls.get())) answerAll(stream, number);
  }
  const std::lock_guard<std::mutex> lock(m_mutex);
  ++m_ended;
  m_over.push_back(number);
  m_changed.notify_all();
}

void HttpServer::answerAll(Stream& stream, int number) {
  for (int index = 0;; ++index) {
    HttpRequest request;
    request.connection = number;
    request.number = index;
    request.tls = stream.isTls();
    request.head = stream.takeThrough("\r\n\r\n");
    if (request.head.empty()) return;
    if (const std::string length = request.header("Content-Length"); !length.empty()) {
      request.body = stream.take(std::stoul(length));
    } else if (request.header("Transfer-Encoding") == "chunked") {
      for (;;) {
        const size_t size = std::stoul("0" + stream.takeThrough("\r\n"), nullptr, 16);
        request.body += stream.take(size);
        stream.take(2);
        if (size == 0) break;
      }
    }
    if (!answer(stream, request)) return;
  }
}

bool HttpServer::answer(Stream& stream, HttpRequest& request) {
  const HttpReply reply = m_handler(request);
  {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_keepsRequests) m_requests.push_back(std::move(request));
  }
  m_changed.notify_all();
  if (!stream.send(reply.bytes)) return false;
  if (reply.more) {
    for (std::string piece = reply.more(); !piece.empty(); piece = reply.more()) {
      if (stream.isStopped() || !stream.send(piece)) return false;
    }
  }
  switch (reply.then) {
    case HttpReply::KeepOpen:
      return true;
    case HttpReply::Close:
      return false;
    case HttpReply::StartTls:
      return stream.startTls(m_tls.get());
    case HttpReply::Silence:
      stream.stayMute();
      return false;
  }
  return false;
}

std::vector<HttpRequest> HttpServer::requests() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_requests;
}

int HttpServer::connections() const {
  const std::lock_guard<std::mutex> lock(m_mutex);
  return m_connections;
}

void HttpServer::forgetRequests() {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_requests.clear();
}

void HttpServer::keepRequests(bool keep) {
  const std::lock_guard<std::mutex> lock(m_mutex);
  m_keepsRequests = keep;
}

bool HttpServer::waitForRequests(size_t count, std::chrono::milliseconds limit) const {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_changed.wait_for(lock, limit, [&] { return m_requests.size() >= count; });
}

bool HttpServer::waitForEnds(size_t count, std::chrono::milliseconds limit) const {
  std::unique_lock<std::mutex> lock(m_mutex);
  return m_changed.wait_for(lock, limit, [&] { return m_ended >= count; });
}

}  // namespace testsupport
