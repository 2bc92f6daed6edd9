// parlova-web: the history in a browser, on this machine.
//
//   parlova-web [--port N] [--address ADDR]
//
// Prints the address to open (with its access token) as the first line on
// standard output, then answers until interrupted.
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <pthread.h>
#include <string>
#include <thread>
#include <variant>

#include "context/ParlovaFolder.h"
#include "web/AccessToken.h"
#include "web/WebServer.h"

namespace {

constexpr const char *kUsage =
    "usage: parlova-web [--port N] [--address ADDR]\n"
    "\n"
    "Serves the chat history (~/Library/Parlova/history.sqlite) to a browser on this\n"
    "machine: search as you type, every chat at the message, people and months.\n"
    "The first line printed is the address to open; it carries the access token.\n"
    "  --port N        the port (default 8123; 0: any free one)\n"
    "  --address ADDR  where to listen (default 127.0.0.1, this machine only)\n";

int trouble(const std::string &line) {
  std::fprintf(stderr, "parlova-web: %s\n", line.c_str());
  return 2;
}

bool isLoopback(const std::string &address) {
  return address == "::1" || address == "localhost" || address.rfind("127.", 0) == 0;
}

} // namespace

int main(int argc, char **argv) {
  std::string address = "127.0.0.1";
  int port = 8123;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    const std::optional<std::string> value =
        i + 1 < argc ? std::optional<std::string>(argv[i + 1]) : std::nullopt;
    if (argument == "--help" || argument == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (argument == "--port") {
      if (!value || value->empty() || value->size() > 5 || value->find_first_not_of("0123456789") != std::string::npos ||
          std::stoi(*value) > 65535)
        return trouble("--port needs a number from 0 to 65535");
      port = std::stoi(*value);
      ++i;
    } else if (argument == "--address") {
      if (!value || value->empty())
        return trouble("--address needs an address to listen on, such as 127.0.0.1");
      address = *value;
      ++i;
    } else {
      return trouble("unknown argument '" + argument + "' (try --help)");
    }
  }
  if (!isLoopback(address))
    std::fprintf(stderr, "parlova-web: warning: listening on %s, where other machines can reach it; every chat is "
                         "behind the token alone\n",
                 address.c_str());

  const auto token = parlova::AccessToken::generate();
  if (!token)
    return trouble("the system gives no random numbers for the access token");
  const std::filesystem::path folder = parlova::parlovaFolder();
  const parlova::WebServerPlaces places{folder / "history.sqlite", folder / "Chats", folder};
  std::error_code error;
  if (!std::filesystem::exists(places.history, error))
    std::fprintf(stderr, "parlova-web: there is no index of the chats yet; make it with: parlova --rebuild-history "
                         "(and keep it with parlova-defaults write com.hollowmere.parlova keepHistory -bool YES)\n");

  // The signals that end it are taken by one thread, which stops the
  // server; the server's threads never see them.
  sigset_t ending;
  sigemptyset(&ending);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP})
    sigaddset(&ending, signal);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);
  std::signal(SIGPIPE, SIG_IGN);

  auto bound = parlova::WebServer::bind(address, port, *token, places);
  if (auto *why = std::get_if<std::string>(&bound))
    return trouble(*why);
  auto &server = *std::get<std::unique_ptr<parlova::WebServer>>(bound);
  std::printf("%s\n", server.openingAddress().c_str());
  std::fflush(stdout);

  std::thread stopper([&server, ending] {
    int signal = 0;
    sigwait(&ending, &signal);
    server.stop();
  });
  const bool served = server.serve();
  // When it stopped for want of its socket, the waiting thread is let go.
  pthread_kill(stopper.native_handle(), SIGTERM);
  stopper.join();
  if (!served)
    return trouble("the server stopped listening");
  return 0;
}
