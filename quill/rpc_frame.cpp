#include "quill/rpc_frame.h"

#include <string.h>

#include <algorithm>

#include "base/include/exceptions.h"
#include "base/include/wipe.h"

namespace lumo {
namespace {

constexpr std::size_t HEADER = 4;

std::size_t lengthAt(const std::string& buffer) {
  std::size_t length = 0;
  for (std::size_t i = 0; i < HEADER; ++i) length = length << 8U | static_cast<unsigned char>(buffer[i]);
  return length;
}

void checkLength(std::size_t length) {
  if (length == 0 || length > MAX_FRAME) {
    LUMO_THROW(BadDataException, -1, "RPC frame of %zu bytes, allowed are 1 to %zu", length, MAX_FRAME);
  }
}

}  // namespace

RpcFrameReader::~RpcFrameReader() { wipe(m_buffer); }

void RpcFrameReader::feed(const char* bytes, std::size_t size) {
  if (m_buffer.capacity() - m_buffer.size() < size) {
    std::string former = std::move(m_buffer);
    const WipeAtEnd wiped(former);
    m_buffer.clear();
    m_buffer.reserve(std::max(2 * former.size(), former.size() + size));
    m_buffer += former;
  }
  m_buffer.append(bytes, size);
  if (m_buffer.size() >= HEADER) checkLength(lengthAt(m_buffer));
}

std::optional<std::string> RpcFrameReader::next() {
  if (m_buffer.size() < HEADER) return std::nullopt;
  const std::size_t length = lengthAt(m_buffer);
  checkLength(length);
  if (m_buffer.size() < HEADER + length) return std::nullopt;
  std::string content = m_buffer.substr(HEADER, length);
  const std::size_t left = m_buffer.size() - (HEADER + length);
  m_buffer.replace(0, left, m_buffer, HEADER + length, left);
  explicit_bzero(m_buffer.data() + left, m_buffer.size() - left);
  m_buffer.resize(left);
  return content;
}

std::string rpcFrame(const std::string& content) {
  checkLength(content.size());
  std::string frame;
  for (unsigned shift = 32; shift != 0;) {
    shift -= 8;
    frame += static_cast<char>(content.size() >> shift & 0xffU);
  }
  return frame + content;
}

}  // namespace lumo
