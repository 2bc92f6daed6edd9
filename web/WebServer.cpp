#include "web/WebServer.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <sys/socket.h>
#include <thread>

#include <httplib.h>

#include "foundation/HtmlText.h"
#include "platform/AddressBook.h"
#include "web/BoundedTaskQueue.h"
#include "web/CalendarPage.h"
#include "web/ChatPage.h"
#include "web/PeoplePages.h"
#include "web/PictureIndex.h"
#include "web/ReadConnections.h"
#include "web/RequestGate.h"
#include "web/SearchPage.h"
#include "web/UrlText.h"
#include "web/WebAssets.h"

namespace parlova {

namespace fs = std::filesystem;

namespace {

// Connections served at once, and accepted connections waiting for a
// worker. A worker keeps a connection for as long as the browser keeps it
// open between requests (up to the keep-alive's 2 s), and a browser opens
// six: a few tabs must not take every worker.
constexpr size_t kWorkers = 24;
constexpr size_t kWaiting = 64;
// Connections the kernel holds until they are taken. The library asks for
// five: a browser's six, or a few clients coming back at once, overflow
// that, and the kernel drops each one over, which then waits a second
// before it knocks again.
constexpr int kKernelQueue = 128;
constexpr size_t kLargestBody = 64 * 1024;
// How long the statements of one request may take: enough for any page,
// and a query that would read the whole index is stopped rather than
// holding a worker.
constexpr std::chrono::milliseconds kWorkLimit{3000};
constexpr uintmax_t kLargestPicture = 64 * 1024 * 1024;

constexpr const char *kPolicy = "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
                                "connect-src 'self'; form-action 'self'; base-uri 'none'; frame-ancestors 'none'";

WebRequest webRequest(const httplib::Request &request) {
  WebRequest web;
  web.path = request.path;
  for (const auto &[name, value] : request.params)
    web.parameters.emplace(name, value);
  for (size_t i = 1; i < request.matches.size(); ++i)
    web.pathParts.push_back(request.matches[i].str());
  return web;
}

void send(httplib::Response &response, const WebAnswer &answer) {
  response.status = answer.status;
  response.set_content(answer.body, answer.type.c_str());
}

void refuse(httplib::Response &response, int status, const std::string &why) {
  response.status = status;
  response.set_content("<!DOCTYPE html><html lang=\"en\"><head><meta charset=\"utf-8\"><title>Parlova</title></head>"
                       "<body><p>" + escapedForHtml(why) + "</p></body></html>\n",
                       "text/html; charset=utf-8");
}

// The address asked for without its token, to go on to once the cookie is
// set: the token then shows in no history or bookmark.
std::string withoutToken(const httplib::Request &request) {
  // Empty segments are left out: "//name" would lead to another site.
  std::string address;
  size_t start = 0;
  while (start < request.path.size()) {
    size_t end = request.path.find('/', start);
    if (end == std::string::npos)
      end = request.path.size();
    if (end > start)
      address += "/" + percentEncoded(request.path.substr(start, end - start));
    start = end + 1;
  }
  if (address.empty())
    address = "/";
  std::string query;
  for (const auto &[name, value] : request.params)
    if (name != "token")
      query += (query.empty() ? "?" : "&") + percentEncoded(name) + "=" + percentEncoded(value);
  return address + query;
}

const char *pictureType(const fs::path &file) {
  std::string extension = file.extension().string();
  for (char &c : extension)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (const auto &[known, type] : {std::pair{".png", "image/png"}, std::pair{".jpg", "image/jpeg"},
                                    std::pair{".jpeg", "image/jpeg"}, std::pair{".gif", "image/gif"},
                                    std::pair{".webp", "image/webp"}, std::pair{".bmp", "image/bmp"},
                                    std::pair{".pdf", "application/pdf"}})
    if (extension == known)
      return type;
  return nullptr;
}

// Whether `inside` is `folder` or lies within it, both resolved.
bool liesWithin(const fs::path &inside, const fs::path &folder) {
  auto a = inside.begin();
  for (auto b = folder.begin(); b != folder.end(); ++b, ++a)
    if (a == inside.end() || *a != *b)
      return false;
  return true;
}

} // namespace

struct WebServer::State {
  explicit State(const WebServerPlaces &places)
      : history(places.history, kWorkLimit, std::max(2u, std::thread::hardware_concurrency())),
        pictures(places.pictures / "gatheredImages.plist"), picturesFolder(places.pictures),
        search(history, places.chatLibrary), chat(history, pictures), people(history, AddressBook::shared()),
        calendar(history) {}

  void route();
  void servePicture(const httplib::Request &request, httplib::Response &response) const;

  httplib::Server server;
  int listening = -1; // the socket the server was bound to
  std::string address;
  int port = 0;
  std::optional<RequestGate> gate; // once the port is known
  ReadConnections history;
  PictureIndex pictures;
  fs::path picturesFolder;
  SearchPage search;
  ChatPage chat;
  PeoplePages people;
  CalendarPage calendar;
};

void WebServer::State::servePicture(const httplib::Request &request, httplib::Response &response) const {
  const std::string asked = request.matches[1].str();
  const fs::path relative(asked);
  std::error_code error;
  const fs::path root = fs::canonical(picturesFolder / "Images", error);
  if (error || asked.find('\0') != std::string::npos || relative.is_absolute())
    return refuse(response, 404, "There is no such picture.");
  for (const auto &part : relative)
    if (part == "..")
      return refuse(response, 404, "There is no such picture.");
  // Resolved with every link followed: a link that leads out of the
  // picture archive leads nowhere.
  const fs::path file = fs::canonical(picturesFolder / relative, error);
  const char *type = pictureType(file);
  if (error || !liesWithin(file, root) || !fs::is_regular_file(file, error) || !type)
    return refuse(response, 404, "There is no such picture.");
  const auto size = fs::file_size(file, error);
  if (error || size > kLargestPicture)
    return refuse(response, 404, "There is no such picture.");
  std::ifstream in(file, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  response.set_header("Cache-Control", "private, max-age=3600");
  response.set_content(bytes.str(), type);
}

void WebServer::State::route() {
  server.new_task_queue = [] { return new BoundedTaskQueue(kWorkers, kWaiting); };
  server.set_payload_max_length(kLargestBody);
  // A page goes out in two writes, its head and its body: without this the
  // second waits for the browser's delayed acknowledgement, 40 ms.
  server.set_tcp_nodelay(true);
  server.set_read_timeout(5, 0);
  server.set_write_timeout(5, 0);
  server.set_keep_alive_timeout(2);
  server.set_keep_alive_max_count(100);
  // The address alone may be taken again at once after a restart; the
  // port is not shared with another server, which would be given half of
  // the connections.
  server.set_socket_options([this](int socket) {
    const int yes = 1;
    setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    listening = socket;
  });

  server.set_pre_routing_handler([this](const httplib::Request &request, httplib::Response &response) {
    response.set_header("Content-Security-Policy", kPolicy);
    response.set_header("X-Content-Type-Options", "nosniff");
    response.set_header("Referrer-Policy", "no-referrer");
    response.set_header("Cache-Control", "no-store");
    const std::optional<std::string> token =
        request.has_param("token") ? std::optional(request.get_param_value("token")) : std::nullopt;
    switch (gate->judge(request.get_header_value("Host"), token, request.get_header_value("Cookie"))) {
    case RequestGate::Verdict::ForeignHost:
      refuse(response, 403, "This server answers only to its own address.");
      return httplib::Server::HandlerResponse::Handled;
    case RequestGate::Verdict::NoToken:
      refuse(response, 403, "Open the address that parlova-web printed.");
      return httplib::Server::HandlerResponse::Handled;
    case RequestGate::Verdict::PassWithToken:
      response.set_header("Set-Cookie", gate->cookie());
      if (request.method == "GET" && request.get_param_value("format") != "json") {
        response.set_redirect(withoutToken(request), 303);
        return httplib::Server::HandlerResponse::Handled;
      }
      return httplib::Server::HandlerResponse::Unhandled;
    case RequestGate::Verdict::Pass:
      return httplib::Server::HandlerResponse::Unhandled;
    }
    return httplib::Server::HandlerResponse::Unhandled;
  });

  const auto origin = [](const httplib::Request &request) { return "http://" + request.get_header_value("Host"); };
  server.Get("/", [this, origin](const httplib::Request &request, httplib::Response &response) {
    send(response, search.answer(webRequest(request), origin(request)));
  });
  server.Get("/search", [this, origin](const httplib::Request &request, httplib::Response &response) {
    send(response, search.answer(webRequest(request), origin(request)));
  });
  server.Get(R"(/chat/(\d{1,18}))", [this](const httplib::Request &request, httplib::Response &response) {
    send(response, chat.page(webRequest(request)));
  });
  server.Get(R"(/chat/(\d{1,18})/rows)", [this](const httplib::Request &request, httplib::Response &response) {
    send(response, chat.rows(webRequest(request)));
  });
  server.Get("/people", [this](const httplib::Request &, httplib::Response &response) {
    send(response, people.everybody());
  });
  server.Get(R"(/person/([^/]{1,500}))", [this](const httplib::Request &request, httplib::Response &response) {
    send(response, people.person(webRequest(request)));
  });
  server.Get("/calendar", [this](const httplib::Request &, httplib::Response &response) {
    send(response, calendar.calendar());
  });
  server.Get(R"(/month/(\d{4}-\d{2}))", [this](const httplib::Request &request, httplib::Response &response) {
    send(response, calendar.month(webRequest(request)));
  });
  server.Get("/app.js", [](const httplib::Request &, httplib::Response &response) {
    response.set_content(std::string(appScript()), "text/javascript; charset=utf-8");
  });
  server.Get("/app.css", [](const httplib::Request &, httplib::Response &response) {
    response.set_content(std::string(appStyle()), "text/css; charset=utf-8");
  });
  server.Get("/icon.svg", [](const httplib::Request &, httplib::Response &response) {
    response.set_content(std::string(appIcon()), "image/svg+xml");
  });
  server.Get(R"(/library/(Images/.+))", [this](const httplib::Request &request, httplib::Response &response) {
    servePicture(request, response);
  });
  server.set_error_handler([](const httplib::Request &, httplib::Response &response) {
    if (response.body.empty())
      refuse(response, response.status, response.status == 404 ? "There is nothing here." : "That cannot be answered.");
  });
  server.set_exception_handler([](const httplib::Request &, httplib::Response &response, std::exception_ptr) {
    refuse(response, 500, "Something went wrong while answering.");
  });
}

WebServer::WebServer(std::unique_ptr<State> state) : state_(std::move(state)) {}
WebServer::~WebServer() = default;

std::variant<std::unique_ptr<WebServer>, std::string> WebServer::bind(const std::string &address, int port,
                                                                     AccessToken token,
                                                                     const WebServerPlaces &places) {
  auto state = std::make_unique<State>(places);
  state->route();
  errno = 0;
  const int bound = port == 0 ? state->server.bind_to_any_port(address)
                              : (state->server.bind_to_port(address, port) ? port : -1);
  if (bound <= 0)
    return "cannot listen on " + address + (port == 0 ? "" : " port " + std::to_string(port)) +
           (errno != 0 ? std::string(": ") + std::strerror(errno) : std::string());
  // Should this fail, the library's own short queue stays: worse, not wrong.
  if (state->listening >= 0)
    ::listen(state->listening, kKernelQueue);
  state->gate.emplace(std::move(token), bound);
  state->address = address;
  state->port = bound;
  return std::unique_ptr<WebServer>(new WebServer(std::move(state)));
}

std::string WebServer::openingAddress() const {
  const std::string host = state_->address.find(':') != std::string::npos ? "[" + state_->address + "]"
                           : state_->address == "0.0.0.0"                ? "127.0.0.1"
                                                                          : state_->address;
  return "http://" + (host == "[::]" ? "[::1]" : host) + ":" + std::to_string(state_->port) +
         "/?token=" + state_->gate->token().text();
}

bool WebServer::serve() { return state_->server.listen_after_bind(); }

void WebServer::stop() { state_->server.stop(); }

} // namespace parlova
