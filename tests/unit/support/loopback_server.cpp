#include "support/loopback_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <stdexcept>

namespace qs_test {

namespace {

// A peer that sends more than this without completing a request is cut off.
constexpr size_t kMaxRequestBytes = 16u * 1024u * 1024u;

// A socket bound to a port of the system's choice on 127.0.0.1, which
// `address` then holds; -1 on failure.
int BoundSocket(sockaddr_in* address) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  *address = sockaddr_in{};
  address->sin_family = AF_INET;
  address->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(*address);
  if (fd >= 0 && (bind(fd, reinterpret_cast<sockaddr*>(address), sizeof(*address)) != 0 ||
                  getsockname(fd, reinterpret_cast<sockaddr*>(address), &length) != 0)) {
    close(fd);
    fd = -1;
  }
  return fd;
}

bool SendAll(int fd, const std::string& data) {
  size_t sent = 0;
  while (sent < data.size()) {
    ssize_t n = send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

std::string Trim(const std::string& text) {
  size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string::npos) return std::string();
  size_t end = text.find_last_not_of(" \t");
  return text.substr(begin, end - begin + 1);
}

// Takes one complete request off the front of `buffer`. False while the
// request is still incomplete.
bool TakeRequest(std::string* buffer, RecordedRequest* request) {
  const size_t head_end = buffer->find("\r\n\r\n");
  if (head_end == std::string::npos) return false;
  const std::string head = buffer->substr(0, head_end);
  size_t line_end = head.find("\r\n");
  const std::string request_line = head.substr(0, line_end);
  RecordedRequest parsed;
  const size_t first_space = request_line.find(' ');
  const size_t second_space = request_line.find(' ', first_space + 1);
  parsed.method = request_line.substr(0, first_space);
  parsed.target = request_line.substr(first_space + 1, second_space - first_space - 1);
  size_t content_length = 0;
  while (line_end != std::string::npos) {
    const size_t start = line_end + 2;
    line_end = head.find("\r\n", start);
    const std::string line =
        head.substr(start, line_end == std::string::npos ? std::string::npos : line_end - start);
    const size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    parsed.headers.emplace_back(line.substr(0, colon), Trim(line.substr(colon + 1)));
    if (strcasecmp(parsed.headers.back().first.c_str(), "Content-Length") == 0) {
      content_length = std::strtoul(parsed.headers.back().second.c_str(), nullptr, 10);
    }
  }
  const size_t body_start = head_end + 4;
  if (buffer->size() - body_start < content_length) return false;
  parsed.body = buffer->substr(body_start, content_length);
  buffer->erase(0, body_start + content_length);
  *request = std::move(parsed);
  return true;
}

}  // namespace

std::string RecordedRequest::Header(const std::string& name) const {
  for (const auto& header : headers) {
    if (strcasecmp(header.first.c_str(), name.c_str()) == 0) return header.second;
  }
  return std::string();
}

bool RecordedRequest::HasHeader(const std::string& name) const {
  return std::any_of(headers.begin(), headers.end(), [&](const auto& header) {
    return strcasecmp(header.first.c_str(), name.c_str()) == 0;
  });
}

LoopbackServer::LoopbackServer() {
  sockaddr_in address;
  listen_fd_ = BoundSocket(&address);
  if (listen_fd_ < 0 || listen(listen_fd_, 16) != 0 || pipe2(wake_fds_, O_CLOEXEC) != 0) {
    if (listen_fd_ >= 0) close(listen_fd_);
    throw std::runtime_error("loopback server: cannot listen");
  }
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { Run(); });
}

LoopbackServer::~LoopbackServer() {
  (void)!write(wake_fds_[1], "x", 1);
  thread_.join();
  close(wake_fds_[0]);
  close(wake_fds_[1]);
  close(listen_fd_);
}

std::string LoopbackServer::Url() const { return "http://127.0.0.1:" + std::to_string(port_); }

void LoopbackServer::Queue(CannedReply reply) {
  std::lock_guard<std::mutex> lock(mutex_);
  replies_.push_back(std::move(reply));
}

void LoopbackServer::Queue(int status, const std::string& body) {
  CannedReply reply;
  reply.status = status;
  reply.body = body;
  reply.headers.emplace_back("Content-Type", "application/json");
  Queue(std::move(reply));
}

std::vector<RecordedRequest> LoopbackServer::Requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

int LoopbackServer::ConnectionCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return connections_;
}

void LoopbackServer::Run() {
  std::map<int, std::string> buffers;  // open connection -> bytes not yet taken
  for (;;) {
    std::vector<pollfd> fds;
    fds.push_back({wake_fds_[0], POLLIN, 0});
    fds.push_back({listen_fd_, POLLIN, 0});
    for (const auto& connection : buffers) fds.push_back({connection.first, POLLIN, 0});
    if (poll(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (fds[0].revents) break;
    if (fds[1].revents & POLLIN) {
      int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd >= 0) {
        buffers[fd];
        std::lock_guard<std::mutex> lock(mutex_);
        ++connections_;
      }
    }
    for (size_t i = 2; i < fds.size(); ++i) {
      if (!fds[i].revents) continue;
      const int fd = fds[i].fd;
      std::string& buffer = buffers[fd];
      char chunk[65536];
      ssize_t n = recv(fd, chunk, sizeof(chunk), 0);
      bool keep = n > 0 && buffer.size() + static_cast<size_t>(n) <= kMaxRequestBytes;
      if (keep) buffer.append(chunk, static_cast<size_t>(n));
      RecordedRequest request;
      while (keep && TakeRequest(&buffer, &request)) {
        CannedReply reply;
        {
          std::lock_guard<std::mutex> lock(mutex_);
          requests_.push_back(request);
          if (replies_.empty()) {
            reply.status = 500;
            reply.body = "no canned reply";
          } else {
            reply = std::move(replies_.front());
            replies_.pop_front();
          }
        }
        if (reply.drop) {
          keep = false;
          break;
        }
        // Clients read the code, never the phrase.
        std::string text = "HTTP/1.1 " + std::to_string(reply.status) + " Canned\r\n";
        for (const auto& header : reply.headers)
          text += header.first + ": " + header.second + "\r\n";
        text += "Content-Length: " + std::to_string(reply.body.size()) + "\r\n\r\n" + reply.body;
        keep = SendAll(fd, text);
      }
      if (!keep) {
        close(fd);
        buffers.erase(fd);
      }
    }
  }
  for (const auto& connection : buffers) close(connection.first);
}

int UnusedPort() {
  sockaddr_in address;
  const int fd = BoundSocket(&address);
  if (fd < 0) throw std::runtime_error("cannot find a free port");
  close(fd);
  return ntohs(address.sin_port);
}

}  // namespace qs_test
