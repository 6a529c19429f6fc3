#include "instrument/tcp/rig_server.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <vector>

#include "instrument/tcp/link_key.h"
#include "instrument/tcp/rig_protocol.h"
#include "platform/sockets.h"

namespace tavrix {
namespace {

constexpr std::string_view kTextNeedsKey =
    "this rig server needs a key (--link-key); the connection is closed";

constexpr int32_t kUnknownRequest = 35;

// Splits off the next blank-ended word of `rest`.
std::string_view nextWord(std::string_view& rest) {
  const size_t blank = rest.find(' ');
  const std::string_view word = rest.substr(0, blank);
  rest = blank == std::string_view::npos ? std::string_view{} : rest.substr(blank + 1);
  return word;
}

template <typename T>
bool toNumber(std::string_view text, T& out) {
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
  return ec == std::errc() && end == text.data() + text.size() && !text.empty();
}

int64_t steadyMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// Sends a refusal to a client that is not taken on, and closes it.
void refuse(platform::Socket socket, int32_t code, std::string_view why) {
  const std::string line = "0 " + std::to_string(code) + " =" + EscapeField(why) + "\n";
  platform::sendSome(socket, line.data(), line.size());
  platform::closeSocket(socket);
}

}  // namespace

struct RigServer::Client {
  platform::Socket socket = platform::kNoSocket;
  std::string in;
  std::string out;
  int64_t lastHeardMs = 0;
  bool closing = false;  // closed once `out` is sent
  std::string peer;
  // The key check: passed (always, on a server without a key), and the two
  // nonces of this connection once the client has sent its own.
  bool trusted = false;
  int64_t acceptedMs = 0;
  std::string linkNonce;
  std::string serverNonce;
};

bool IsLoopbackAddress(std::string_view host) {
  return platform::isLoopbackAddress(std::string(host));
}

RigServer::~RigServer() { platform::closeSocket(listener_); }

bool RigServer::listen(std::string_view hostPort, std::string* error) {
  std::string host;
  uint16_t port = 0;
  if (!ParseHostPort(hostPort, host, port)) {
    if (error) *error = "the address \"" + std::string(hostPort) + "\" is not HOST:PORT";
    return false;
  }
  std::string why;
  const platform::Socket listener = platform::listenTcp(host, port, &why);
  if (listener == platform::kNoSocket) {
    // A host that is no address is said as it is; a refusal by the system
    // names the address.
    if (why.rfind("the host ", 0) != 0)
      why = "cannot listen on " + std::string(hostPort) + ": " + why;
    if (error) *error = why;
    return false;
  }
  port_ = port;
  listener_ = listener;
  return true;
}

std::string RigServer::answer(std::string_view line) {
  std::string_view rest = line;
  const std::string_view id = nextWord(rest);
  const std::string_view verb = nextWord(rest);
  const std::string head = std::string(id) + " ";
  auto reply = [&](int32_t code, std::optional<std::string_view> text = std::nullopt) {
    std::string out = head + std::to_string(code);
    if (text) out += " =" + EscapeField(*text);
    return out;
  };
  int device = 0;
  Micros t = 0;
  // A client names the newest protocol it speaks; the greeting names the one
  // both speak.
  int spoken = 1;
  if (verb == "HELLO")
    return reply(
        0, toNumber(rest, spoken) && spoken >= 2 && protocol_ >= 2 ? kRigGreeting2 : kRigGreeting);
  if (verb == "SENDREPLY" && protocol_ < 2) return reply(kUnknownRequest, "unknown request");
  if (library_) {
    if (const auto answered = library_->answer(verb, rest)) {
      return answered->text ? reply(answered->code, *answered->text) : reply(answered->code);
    }
    return reply(kUnknownRequest, "unknown request");
  }
  if (verb == "VERSION") return reply(0, kRigInterfaceVersion);
  if (verb == "IMSVERSION") return reply(kRigSetupLibVersionNumber, kRigSetupLibVersion);
  if (verb == "UNLOCK") return reply(0);
  // The built-in rig has no directory of its own on the server's side.
  if (verb == "DIRPATH") return reply(0, "");
  if (verb == "SEND" && toNumber(nextWord(rest), device) && toNumber(nextWord(rest), t)) {
    const int32_t code = model_.send(device, UnescapeField(rest), t);
    if (code == link_result::kOk && model_.replyReadyNow(device, t)) {
      std::string text;
      model_.reply(device, t, text);
      return reply(0, text);
    }
    return reply(code);
  }
  // The command, then its reply when it is ready at once; a reply not ready
  // yet is left to the client's polls, as after a SEND.
  if (verb == "SENDREPLY" && toNumber(nextWord(rest), device) && toNumber(nextWord(rest), t)) {
    const int32_t code = model_.send(device, UnescapeField(rest), t);
    if (code != link_result::kOk || !model_.replyReadyNow(device, t)) return reply(code);
    std::string text;
    const int32_t replyCode = model_.reply(device, t, text);
    return reply(0, SendReplyText(replyCode, text));
  }
  if (verb == "REPLY" && toNumber(nextWord(rest), device) && toNumber(nextWord(rest), t)) {
    std::string text;
    const int32_t code = model_.reply(device, t, text);
    return code == link_result::kOk ? reply(0, text) : reply(code);
  }
  if (verb == "ABORT" && toNumber(nextWord(rest), device)) {
    model_.abort(device);
    return reply(0);
  }
  if (verb == "MONITOR" && toNumber(nextWord(rest), device) && rest.substr(0, 1) == "=") {
    int16_t number = 0;
    const int32_t code = model_.requestMonitor(UnescapeField(rest.substr(1)), device, number);
    return code == link_result::kOk ? reply(0, std::to_string(number)) : reply(code);
  }
  if (verb == "SETUP" && rest.substr(0, 1) == "=") {
    const size_t tab = rest.find('\t');
    if (tab != std::string_view::npos) {
      const std::string path = UnescapeField(rest.substr(1, tab - 1));
      RigSetup setup;
      std::string error;
      if (!ParseRigSetup(UnescapeField(rest.substr(tab + 1)), path, setup, &error)) {
        return reply(link_result::kSetupFileBadLine, error);
      }
      const std::string text = setup.name + "\n" + setup.summary;
      model_.load(std::move(setup));
      return reply(0, text);
    }
  }
  return reply(kUnknownRequest, "unknown request");
}

std::string RigServer::handshake(Client& c, std::string_view line, bool full) {
  const auto refuse = [&](std::string_view toLog, std::string_view toClient) {
    tell("refused " + c.peer + ": " + std::string(toLog));
    c.closing = true;
    return "0 " + std::to_string(kRigKeyRefused) + " =" + EscapeField(toClient);
  };
  std::string_view rest = line;
  const std::string_view id = nextWord(rest);
  const std::string_view verb = nextWord(rest);
  uint64_t number = 0;
  if (!toNumber(id, number)) return refuse("it did not begin with the key check", kTextNeedsKey);
  if (verb == "KEY" && c.linkNonce.empty() && IsNonce(rest)) {
    c.linkNonce = std::string(rest);
    c.serverNonce = NewNonce();
    if (c.serverNonce.empty()) return refuse("no random numbers for its nonce", kTextNeedsKey);
    return std::string(id) + " 0 =" + c.serverNonce + " " +
           ServerProof(key_, c.linkNonce, c.serverNonce);
  }
  if (verb == "PROOF" && !c.linkNonce.empty()) {
    if (!SameProof(rest, LinkProof(key_, c.serverNonce, c.linkNonce))) {
      return refuse("its key is not this server's key",
                    "the bridge refused the key; the connection is closed");
    }
    if (full) {
      tell("refused " + c.peer + ": " + std::to_string(kMaxClients) + " connections are served");
      c.closing = true;
      return "0 " + std::to_string(kRigTooManyClients) + " =" +
             EscapeField("the rig server serves at most " + std::to_string(kMaxClients) +
                         " connections");
    }
    c.trusted = true;
    return std::string(id) + " 0";
  }
  return refuse(verb == "HELLO" ? "it has no key" : "it did not begin with the key check",
                kTextNeedsKey);
}

void RigServer::accept(std::vector<Client>& clients, int64_t nowMs) {
  bool outOfHandles = false;
  std::string peer;
  const platform::Socket socket = platform::acceptClient(listener_, &outOfHandles, &peer);
  if (socket != platform::kNoSocket && outOfHandles) {
    refuse(socket, kRigTooManyClients, "the rig server has no file descriptors left");
  } else if (socket != platform::kNoSocket && key_.empty() && clients.size() >= kMaxClients) {
    refuse(socket, kRigTooManyClients,
           "the rig server serves at most " + std::to_string(kMaxClients) + " connections");
  } else if (socket != platform::kNoSocket) {
    // With a key, a new connection joins those yet to pass the check;
    // the oldest of them goes when their share is full.
    const auto unproven = [](const Client& c) { return !c.trusted && !c.closing; };
    if (!key_.empty() && static_cast<size_t>(std::count_if(clients.begin(), clients.end(),
                                                           unproven)) >= kMaxUnprovenClients) {
      Client& oldest = *std::find_if(clients.begin(), clients.end(), unproven);
      tell("refused " + oldest.peer + ": too many connections waiting for the key check");
      oldest.out += "0 " + std::to_string(kRigTooManyClients) + " =" +
                    EscapeField(
                        "the rig server has too many connections waiting for the key "
                        "check; the connection is closed") +
                    "\n";
      oldest.in.clear();
      oldest.closing = true;
    }
    Client client;
    client.socket = socket;
    client.lastHeardMs = nowMs;
    client.peer = peer;
    client.trusted = key_.empty();
    client.acceptedMs = nowMs;
    clients.push_back(std::move(client));
  }
}

bool RigServer::serveClient(Client& c, bool readable, size_t& proven, int64_t nowMs) {
  const bool wasTrusted = c.trusted;
  bool closed = false;
  if (readable) {
    char chunk[8192];
    // Reads up to the bound of one request, so that a line without end
    // costs no more than that.
    const size_t bound = c.trusted ? kMaxRequestBytes : kMaxHandshakeBytes;
    while (c.in.size() <= bound) {
      const long n = platform::receiveSome(c.socket, chunk, sizeof chunk);
      if (n > 0) {
        c.in.append(chunk, static_cast<size_t>(n));
        c.lastHeardMs = nowMs;
        continue;
      }
      if (n == 0 || n == platform::kBroken) closed = true;
      break;
    }
  }
  size_t start = 0;
  size_t eol;
  while (!c.closing && c.out.size() < kMaxQueuedReplyBytes &&
         (eol = c.in.find('\n', start)) != std::string::npos) {
    std::string_view line(c.in.data() + start, eol - start);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    c.out += line.size() > kMaxRequestBytes
                 ? "0 " + std::to_string(kRigRequestTooLong) + " =request line too long"
             : c.trusted ? answer(line)
                         : handshake(c, line, proven >= kMaxClients);
    c.out += '\n';
    start = eol + 1;
  }
  c.in.erase(0, start);
  if (c.trusted && !wasTrusted) ++proven;
  if (!c.closing && !c.trusted &&
      (c.in.size() > kMaxHandshakeBytes || nowMs - c.acceptedMs > kHandshakeTimeoutMs)) {
    c.out += "0 " + std::to_string(kRigKeyRefused) + " =" + EscapeField(kTextNeedsKey) + "\n";
    tell("refused " + c.peer + ": " +
         (c.in.size() > kMaxHandshakeBytes
              ? "it did not begin with the key check"
              : "no key check within " + std::to_string(kHandshakeTimeoutMs / 1000) + " seconds"));
    c.in.clear();
    c.closing = true;
  }
  if (!c.closing && c.in.size() > kMaxRequestBytes && c.in.find('\n') == std::string::npos) {
    c.out += "0 " + std::to_string(kRigRequestTooLong) + " =" +
             EscapeField("a request line is longer than " + std::to_string(kMaxRequestBytes >> 20) +
                         " MiB; the connection is closed") +
             "\n";
    c.in.clear();
    c.in.shrink_to_fit();
    c.closing = true;
  }
  while (!closed && !c.out.empty()) {
    const long n = platform::sendSome(c.socket, c.out.data(), c.out.size());
    if (n > 0) {
      c.out.erase(0, static_cast<size_t>(n));
    } else {
      if (n == platform::kBroken) closed = true;
      break;
    }
  }
  if (c.closing && c.out.empty()) closed = true;
  if (!closed && !c.closing && nowMs - c.lastHeardMs > kIdleTimeoutMs) {
    const std::string notice = "0 " + std::to_string(kRigIdleClosed) + " =" +
                               EscapeField("no request for an hour; the connection is closed") +
                               "\n";
    platform::sendSome(c.socket, notice.data(), notice.size());
    closed = true;
  }
  return closed;
}

void RigServer::serve(const std::atomic<bool>& stop) {
  const std::function<int64_t()> now = nowMs_ ? nowMs_ : std::function<int64_t()>(steadyMs);
  std::vector<Client> clients;
  std::vector<platform::Watch> watches;
  while (!stop.load()) {
    watches.clear();
    watches.push_back({listener_, true, false});
    for (const auto& c : clients) {
      // Requests are read only while the replies queued for the client are
      // within their bound and no whole request waits unanswered.
      const bool read =
          !c.closing && c.out.size() < kMaxQueuedReplyBytes && c.in.find('\n') == std::string::npos;
      watches.push_back({c.socket, read, !c.out.empty()});
    }
    platform::waitSockets(watches, 100);
    const int64_t nowMs = now();
    if (watches[0].readable) accept(clients, nowMs);
    size_t proven = static_cast<size_t>(
        std::count_if(clients.begin(), clients.end(), [](const Client& c) { return c.trusted; }));
    for (size_t i = 0; i + 1 < watches.size() && i < clients.size(); ++i) {
      Client& c = clients[i];
      if (serveClient(c, watches[i + 1].readable, proven, nowMs)) {
        platform::closeSocket(c.socket);
        c.socket = platform::kNoSocket;
      }
    }
    std::erase_if(clients, [](const Client& c) { return c.socket == platform::kNoSocket; });
  }
  for (auto& c : clients) platform::closeSocket(c.socket);
}

int RunRigServer(FileSystem& files, RigServing serving, std::FILE* log,
                 const std::atomic<bool>* stop) {
  const auto fail = [log](const std::string& error) {
    std::fprintf(log, "tavrix-cli rig: %s\n", error.c_str());
    return 2;
  };
  RigServer server;
  std::string error;
  std::string host;
  uint16_t port = 0;
  if (!ParseHostPort(serving.listen, host, port)) {
    return fail("the address \"" + serving.listen + "\" is not HOST:PORT");
  }
  if (serving.keyFile.empty() && platform::isIpv4Address(host) && !IsLoopbackAddress(host)) {
    return fail("listening on " + host +
                " lets other computers reach the rig, so it needs a key: give one with --key FILE "
                "(tavrix-cli rig --new-key FILE makes one), or listen on 127.0.0.1");
  }
  if (!serving.keyFile.empty()) {
    std::string key;
    if (!LoadLinkKey(files, serving.keyFile, key, &error)) return fail(error);
    server.requireKey(std::move(key));
  }
  std::string what;
  if (serving.library) {
    auto service = std::make_unique<LibraryService>(std::move(serving.library), files);
    if (!service->open(&error)) return fail(serving.libraryName + ": " + error);
    server.serveLibrary(std::move(service));
    what = "the " + serving.libraryName + " link";
  } else {
    if (!serving.setupFile.empty()) {
      RigSetup setup;
      if (!LoadRigSetupFile(files, serving.setupFile, setup, &error)) return fail(error);
      server.model().load(std::move(setup));
    }
    what = serving.setupFile.empty() ? "an empty rig" : serving.setupFile;
  }
  if (!server.listen(serving.listen, &error)) return fail(error);
  server.setLog([log](const std::string& text) {
    std::fprintf(log, "tavrix-cli rig: %s\n", text.c_str());
    std::fflush(log);
  });
  std::fprintf(log, "tavrix-cli rig: serving %s on %s:%u%s\n", what.c_str(), host.c_str(),
               server.port(), serving.keyFile.empty() ? "" : " to clients with the key");
  std::fflush(log);
  static const std::atomic<bool> never{false};
  server.serve(stop != nullptr ? *stop : never);
  return 0;
}

}  // namespace tavrix
