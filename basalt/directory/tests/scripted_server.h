// A TCP server on loopback that answers LDAP messages as its script says.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "basalt/directory/directory_socket.h"
#include "basalt/files/posix_file.h"

// A socket bound to a port of the system's choice on 127.0.0.1.
inline lumo::FileDescriptor boundSocket(int type, lumo::DirectoryServer& server) {
  lumo::FileDescriptor fd(socket(AF_INET, type | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (!fd || bind(fd.get(), generic, size) != 0 || getsockname(fd.get(), generic, &size) != 0) {
    throw std::runtime_error("no socket on loopback");
  }
  server = {"127.0.0.1", ntohs(address.sin_port)};
  return fd;
}

// Serves one connection after the other until it goes. The script gets each message of the client and returns the bytes
// to send; an empty answer sends nothing, CLOSE ends the connection.
class ScriptedServer {
 public:
  using Script = std::function<std::string(const std::string& message)>;
  static constexpr char CLOSE[] = "close";

  explicit ScriptedServer(Script script) : m_script(std::move(script)), m_listener(boundSocket(SOCK_STREAM, m_server)) {
    int ends[2];
    if (listen(m_listener.get(), 8) != 0 || pipe(ends) != 0) throw std::runtime_error("no server on loopback");
    m_stopRead = lumo::FileDescriptor(ends[0]);
    m_stopWrite = lumo::FileDescriptor(ends[1]);
    m_thread = std::thread([this] { run(); });
  }
  ~ScriptedServer() {
    close(m_stopWrite.release());
    m_thread.join();
  }
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  const lumo::DirectoryServer& server() const { return m_server; }

 private:
  // False when the server is to end.
  bool readable(int fd) const {
    pollfd waiting[2] = {{fd, POLLIN, 0}, {m_stopRead.get(), POLLIN, 0}};
    return poll(waiting, 2, -1) > 0 && waiting[1].revents == 0;
  }

  void run() {
    while (readable(m_listener.get())) {
      const lumo::FileDescriptor client(accept(m_listener.get(), nullptr, nullptr));
      serve(client.get());
    }
  }

  void serve(int client) {
    for (std::string message; readable(client);) {
      char bytes[4096];
      const ssize_t size = recv(client, bytes, sizeof bytes, 0);
      if (size <= 0) return;
      message.append(bytes, static_cast<std::size_t>(size));
      // The requests of these tests are shorter than 128 bytes, or their length stands in the bytes behind the tag.
      for (std::size_t length = lengthOf(message); length != 0; length = lengthOf(message)) {
        const std::string answer = m_script(message.substr(0, length));
        message.erase(0, length);
        if (answer == CLOSE) return;
        if (send(client, answer.data(), answer.size(), MSG_NOSIGNAL) < 0) return;
      }
    }
  }

  // Bytes of the first message, 0 while it is not there in full.
  static std::size_t lengthOf(const std::string& bytes) {
    if (bytes.size() < 2) return 0;
    std::size_t length = static_cast<unsigned char>(bytes[1]);
    std::size_t header = 2;
    if (length >= 0x80) {
      header += length - 0x80;
      if (bytes.size() < header) return 0;
      length = 0;
      for (std::size_t i = 2; i < header; ++i) length = length << 8U | static_cast<unsigned char>(bytes[i]);
    }
    return bytes.size() >= header + length ? header + length : 0;
  }

  const Script m_script;
  lumo::DirectoryServer m_server;
  lumo::FileDescriptor m_listener;
  lumo::FileDescriptor m_stopRead, m_stopWrite;
  std::thread m_thread;
};
