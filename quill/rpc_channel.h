// Frames over a connected socket, each call with a deadline. Both sides of the local RPC use it.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "basalt/files/posix_file.h"
#include "quill/rpc_frame.h"

namespace lumo {

// One connection. One thread at a time. After an exception the stream's place is lost: close it.
class RpcChannel {
 public:
  using Span = std::chrono::milliseconds;
  using Deadline = std::chrono::steady_clock::time_point;

  // Takes a connected stream socket. A `stopFd` that becomes readable ends every wait; -1: there is none.
  explicit RpcChannel(FileDescriptor socket, int stopFd = -1);

  // Sends one frame. Throws IPCException when the peer is gone, the deadline passes or the stop comes, BadDataException
  // for a content that fits no frame.
  void send(const std::string& content, Deadline deadline);

  // The next frame. Waits at most `idle` for its beginning and `frame` from there on. Empty when the peer has closed
  // between two frames, or when the stop came there. Throws IPCException when the time is up, the peer dies within a
  // frame or the frame's length is not allowed.
  std::optional<std::string> receive(Span idle, Span frame);

  // Has the peer closed, and left nothing unread in the socket? Any thread, also while another one is in receive().
  bool peerClosed() const;
  // Ends the connection for the peer; the descriptor goes with the object. Never throws.
  void shut() const;

 private:
  enum class Wait { Ready, TimedOut, Stopped };
  Wait wait(short events, Deadline deadline) const;
  bool readSome();

  FileDescriptor m_socket;
  int m_stopFd;
  RpcFrameReader m_reader;
};

}  // namespace lumo
