#include "lab/platform/platform_simulator.h"

#include <algorithm>
#include <map>
#include <stdexcept>

#include "lab/platform/platform_impl.h"

namespace ferrolab {
namespace {

using testsupport::HttpReply;
using testsupport::HttpRequest;

constexpr int POD_CONNECTIONS = 1'000'000;
constexpr auto FROM_THE_START = testsupport::HttpServer::FromTheStart;
constexpr size_t KEPT_REQUESTS = 10'000;

Pairs headersOf(const std::string& head) {
  Pairs headers;
  for (size_t start = head.find("\r\n") + 2; start < head.size();) {
    const size_t end = head.find("\r\n", start);
    const size_t colon = head.find(':', start);
    if (end == std::string::npos || end == start) break;
    if (colon < end) {
      const size_t value = std::min(head.find_first_not_of(" \t", colon + 1), end);
      headers.emplace_back(head.substr(start, colon - start), head.substr(value, end - value));
    }
    start = end + 2;
  }
  return headers;
}

void addCookies(const std::string& header, std::vector<std::string>& values) {
  constexpr char NAME[] = ".ASPXAUTH=";
  for (size_t start = 0; start < header.size();) {
    start = std::min(header.find_first_not_of("; ", start), header.size());
    const size_t end = std::min(header.find(';', start), header.size());
    if (header.compare(start, sizeof NAME - 1, NAME) == 0) {
      values.push_back(header.substr(start + sizeof NAME - 1, end - start - (sizeof NAME - 1)));
    }
    start = end;
  }
}

Call callOf(const HttpRequest& request, int firstConnection) {
  Call call;
  call.connection = firstConnection + request.connection;
  call.method = request.method();
  const std::string target = request.target();
  const size_t mark = target.find('?');
  call.hasQuery = mark != std::string::npos;
  call.path = target.substr(1, std::min(mark, target.size()) - 1);
  if (call.hasQuery) call.query = target.substr(mark + 1);
  call.headers = headersOf(request.head);
  call.body = request.body;
  call.count("Host", call.host);
  for (const auto& [name, value] : call.headers) {
    if (name == "Cookie") addCookies(value, call.cookies);
  }
  return call;
}

std::string statusLine(int status) {
  static const std::map<int, const char*> words{{200, "OK"},
                                                {204, "No Content"},
                                                {301, "Moved Permanently"},
                                                {302, "Found"},
                                                {400, "Bad Request"},
                                                {401, "Unauthorized"},
                                                {403, "Forbidden"},
                                                {404, "Not Found"},
                                                {405, "Method Not Allowed"},
                                                {500, "Internal Server Error"},
                                                {502, "Bad Gateway"},
                                                {503, "Service Unavailable"}};
  const auto found = words.find(status);
  return std::to_string(status) + " " + (found == words.end() ? "Status" : found->second);
}

HttpReply replyOf(const Answer& answer) {
  std::vector<std::string> lines{"Content-Type: application/json; charset=utf-8", "X-MRV-Pod: lab"};
  lines.insert(lines.end(), answer.headers.begin(), answer.headers.end());
  return testsupport::httpReply(statusLine(answer.status), lines, answer.body);
}

// Ends the reply at the place that the fault says.
void cut(const Fault& fault, HttpReply& reply) {
  const size_t headEnd = reply.bytes.find("\r\n\r\n") + 4;
  if (fault.kind == Fault::Hang) {
    reply = {"", HttpReply::Silence};
  } else if (fault.kind == Fault::Cut) {
    reply.then = HttpReply::Close;
    if (fault.place == Fault::Before) reply.bytes.clear();
    if (fault.place == Fault::InHeaders) reply.bytes.resize(headEnd - 10);
    if (fault.place == Fault::InBody) reply.bytes.resize(headEnd + (reply.bytes.size() - headEnd) / 2);
  }
}

std::string cookieText(const Call& call) {
  std::string text;
  for (const auto& value : call.cookies) text += (text.empty() ? "" : ", ") + value;
  return text;
}

Script scriptOf(const PlatformOptions& options) {
  return readScript(parsed(options.script.empty() ? PlatformSimulator::defaultScript() : options.script, "the script"));
}

}  // namespace

PlatformSimulator::Impl::Impl(const PlatformOptions& given)
    : options(given),
      core(
          scriptOf(given), given.now ? given.now : [] { return std::chrono::steady_clock::now(); }) {
  core.usesTls = options.certificate != nullptr;
  core.keepsRecord = options.keepsRecord;
  const auto handler = [this](int first) { return [this, first](const HttpRequest& r) { return serve(r, first); }; };
  core.podHost = options.podHost;
  if (options.podHost.empty()) {
    pod = std::make_unique<testsupport::HttpServer>(handler(POD_CONNECTIONS), options.certificate, options.address, 0,
                                                    FROM_THE_START);
    pod->keepRequests(false);
    core.podHost = options.hostName + ":" + std::to_string(pod->port());
  }
  server = std::make_unique<testsupport::HttpServer>(handler(0), options.certificate, options.address, options.port,
                                                     FROM_THE_START);
  server->keepRequests(false);
}

PlatformSimulator::Impl::~Impl() {
  {
    const std::lock_guard<std::mutex> lock(mutex);
    ends = true;
  }
  changed.notify_all();
}

HttpReply PlatformSimulator::Impl::serve(const HttpRequest& request, int firstConnection) {
  const Call call = callOf(request, firstConnection);
  std::unique_lock<std::mutex> lock(mutex);
  core.checkHeaders(call);
  return replied(call, lock, [this, &call] { return core.answer(call); });
}

// The platform's answer, or what a fault makes of it.
HttpReply PlatformSimulator::Impl::replied(const Call& call, std::unique_lock<std::mutex>& lock,
                                           const std::function<Answer()>& ask) {
  const std::unique_ptr<Fault> fault = faults.meet(call.path);
  Answer answer = fault && fault->comesFirst() ? answerOf(*fault) : ask();
  if (fault) apply(*fault, core, call, answer);
  const bool isSilent = fault && (fault->kind == Fault::Hang || fault->kind == Fault::Cut);
  record(call, isSilent ? 0 : answer.status);
  changed.notify_all();
  if (fault && fault->kind == Fault::Delay) {
    changed.wait_for(lock, std::chrono::milliseconds(fault->number), [this] { return ends; });
  }
  lock.unlock();
  HttpReply reply = replyOf(answer);
  if (fault) cut(*fault, reply);
  return reply;
}

void PlatformSimulator::Impl::record(const Call& call, int status) {
  if (!options.keepsRecord) return;
  if (requests.size() == KEPT_REQUESTS) requests.pop_front();
  requests.push_back(
      {call.connection, call.host, call.method, call.path, call.query, call.body, cookieText(call), status});
}

// The connector's page: the machine is whom the connector knows by its ticket.
HttpReply PlatformSimulator::Impl::siteCheck(const std::string& remoteUser) {
  Call call;
  call.method = "GET";
  call.path = "iwa/SiteCheck";
  std::unique_lock<std::mutex> lock(mutex);
  return replied(call, lock, [&] {
    Answer answer;
    answer.body = core.siteCheck(remoteUser);
    return answer;
  });
}

PlatformSimulator::PlatformSimulator(const PlatformOptions& options) : m_impl(std::make_unique<Impl>(options)) {}
PlatformSimulator::~PlatformSimulator() = default;

std::string PlatformSimulator::url() const {
  return (m_impl->core.usesTls ? "https://" : "http://") + m_impl->options.hostName + ":" + std::to_string(port()) +
         "/";
}
unsigned short PlatformSimulator::port() const { return m_impl->server->port(); }
std::string PlatformSimulator::podHost() const { return m_impl->core.podHost; }

int PlatformSimulator::connections() const {
  return m_impl->server->connections() + (m_impl->pod ? m_impl->pod->connections() : 0);
}

std::vector<std::string> PlatformSimulator::surprises() const {
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  return m_impl->core.surprises;
}

long PlatformSimulator::eventCount() const {
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  return m_impl->core.eventCount;
}

std::vector<std::string> PlatformSimulator::events() const {
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  return m_impl->core.events;
}

std::vector<PlatformRequest> PlatformSimulator::requests() const {
  const std::lock_guard<std::mutex> lock(m_impl->mutex);
  return {m_impl->requests.begin(), m_impl->requests.end()};
}

std::vector<std::string> PlatformSimulator::calls() const {
  std::vector<std::string> calls;
  for (const auto& request : requests()) calls.push_back(request.method + " " + request.endpoint);
  return calls;
}

}  // namespace ferrolab
