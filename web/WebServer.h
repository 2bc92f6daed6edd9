// The web view of the history: every page and answer, behind the gate,
// served on one address until stopped. It only reads.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <variant>

#include "web/AccessToken.h"

namespace parlova {

struct WebServerPlaces {
  std::filesystem::path history;     // history.sqlite
  std::filesystem::path chatLibrary; // the chat pages, for the JSON's "page"
  std::filesystem::path pictures;    // the picture archive's folder, whose Images/ may be served
};

class WebServer {
public:
  // Bound to `address` and `port` (0: a free one), or why not.
  static std::variant<std::unique_ptr<WebServer>, std::string> bind(const std::string &address, int port,
                                                                  AccessToken token, const WebServerPlaces &places);
  ~WebServer();

  // "http://127.0.0.1:8123/?token=…", the address to open.
  std::string openingAddress() const;
  // Answers until stop() is called (from any thread); false when it could
  // not go on listening.
  bool serve();
  void stop();

private:
  struct State;
  explicit WebServer(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

} // namespace parlova
