// parlova-web as its user and as a stranger meet it: a real browser that
// types, clicks and scrolls; every gate and bound tried over plain HTTP;
// its JSON against parlova-search's, read with Python's json module.
#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <future>
#include <poll.h>
#include <set>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "samples/ImageWriter.h"
#include "tests/support/ToolTestSupport.h"

namespace parlova::testing {
namespace {

namespace fs = std::filesystem;
using namespace samples;

const Account kMe{"AIM", "parlovauser"}, kAlice{"AIM", "alice1979"}, kAliceAtWork{"AIM", "alice.work"},
    kBob{"AIM", "bobbytables"}, kMallory{"AIM", "mallory"}, kCarol{"AIM", "carol"};

// How many messages the long chat has, and where its one "needle" is.
constexpr int kLongChat = 2000;
constexpr int kNeedleAt = 1000;

class Web : public ::testing::Test {
protected:
  void SetUp() override {
    installShippedFiles(home_);
    for (const char *feature : {"keepHistory", "handleImages", "handleURLs"})
      home_.setSetting(feature, "-bool", "YES");
    TranscriptSpec alice;
    alice.others = {kAlice};
    alice.messages = {says(kAlice, 157629600, "my frequent flyer number is 4242-1717"), // 2005-12-30 10:00
                      says(kMe, 157629660, "pancakes and syrup"), withLink(kMe, 157629700, "http://example.com/recipe"),
                      withPicture(kAlice, 157629720, "cake.png", pictureBytes(ImageFormat::PNG, 8, 8))};
    home_.addTranscript("Alice on 2005-12-30 at 10.00.ichat", alice);
    TranscriptSpec work;
    work.others = {kAliceAtWork};
    work.messages = {says(kAliceAtWork, 160000000, "pancakes at work again")};
    home_.addTranscript("Alice on 2006-01-26 at 20.26.ichat", work);
    TranscriptSpec bob;
    bob.others = {kBob};
    bob.messages = {says(kBob, 100000000, "pancakes for breakfast?"), says(kMe, 100000060, "sure")};
    writeFile(home_.chats() / "Bob on 2004-03-03 at 09.46.chat", typedStreamTranscript(bob));
    TranscriptSpec mallory;
    mallory.others = {kMallory};
    mallory.messages = {says(kMallory, 170000000, "hostile <script>alert(1)</script><img src=x onerror=alert(2)>"),
                        says(kMallory, 170000010, "hostile javascript:alert(3) and "
                                                  "http://ok.example/\"onmouseover=\"alert(4)")};
    home_.addTranscript("mallory on 2006-05-22 at 02.13.ichat", mallory);
    TranscriptSpec carol;
    carol.others = {kCarol};
    for (int i = 0; i < kLongChat; ++i)
      carol.messages.push_back(says(i % 2 ? kMe : kCarol, 180000000 + i * 10.0,
                                    i == kNeedleAt ? "the needle is here" : "line " + std::to_string(i)));
    home_.addTranscript("carol on 2006-09-14 at 08.00.ichat", carol);
    writeText(home_.path() / "contacts.vcf",
              "BEGIN:VCARD\nVERSION:3.0\nN:Liddell;Alice;;;\nX-AIM:alice1979\nX-AIM:alice.work\nEND:VCARD\n");
    const auto caughtUp = home_.run("parlova", {"--catch-up", "--yes", "--quiet"});
    ASSERT_EQ(caughtUp.exitCode, 0) << caughtUp.err;
  }
  std::map<std::string, std::string> contacts() const {
    return {{"PARLOVA_CONTACTS", (home_.path() / "contacts.vcf").string()}};
  }
  ScratchHome home_;
};

// Python's reading of the browser's report: each value, then each error.
std::string report(const ScratchHome &home, const std::string &json) {
  writeText(home.path() / "report.json", json);
  return pythonReading("import json, sys\nr = json.load(open(sys.argv[1]))\n"
                       "for k in sorted(r['values']): print(k, json.dumps(r['values'][k]))\n"
                       "for e in r['errors']: print('error', e)\n"
                       "print('failed', r['failed'])\n",
                       home.path() / "report.json");
}

TEST_F(Web, AChatIsFoundAsTypedAndOpensAtTheMessageInABrowser) {
  const WebView web(home_, contacts());
  const std::string origin = web.origin();
  // The chat page centres its message once more a frame after it has
  // loaded: the scrolls come after two frames, or a slow machine's page
  // takes the reader back before it sees the edge it was scrolled to.
  const std::string steps = R"steps([
    {"open": ")steps" + web.openingAddress() + R"steps("},
    {"value": "addressAfterOpening", "js": "location.href"},
    {"type": "#q", "text": "needle"},
    {"wait": "document.querySelectorAll('#results .hit').length === 1"},
    {"value": "markedInHit", "js": "document.querySelector('#results .hit mark').textContent"},
    {"value": "addressWhileTyping", "js": "location.pathname + location.search"},
    {"click": "#results .hit .open"},
    {"wait": "location.pathname.startsWith('/chat/') && document.readyState === 'complete'"},
    {"wait": "new Promise(settled => requestAnimationFrame(() => requestAnimationFrame(() => settled(true))))"},
    {"value": "hitInView", "js": "(() => { const r = document.querySelector('.m.hit').getBoundingClientRect(); return [document.querySelector('.m.hit .text').textContent, r.top >= document.querySelector('header').getBoundingClientRect().bottom && r.bottom <= innerHeight]; })()"},
    {"value": "shownFirst", "js": "document.querySelectorAll('.m').length"},
    {"value": "readerScrolls", "js": "(() => { window.dispatchEvent(new WheelEvent('wheel')); window.readerAt = scrollY + 300; scrollTo(0, readerAt); dispatchEvent(new Event('load')); return true; })()"},
    {"wait": "new Promise(settled => requestAnimationFrame(() => requestAnimationFrame(() => settled(true))))"},
    {"value": "leftWhereTheReaderWent", "js": "scrollY === readerAt"},
    {"scroll": "bottom"},
    {"wait": "document.querySelectorAll('.m').length >= 401"},
    {"scroll": "top"},
    {"wait": "document.querySelectorAll('.m').length >= 601"},
    {"value": "daysOnce", "js": "(() => { const d = [...document.querySelectorAll('h2.day')].map(h => h.textContent); return d.length === new Set(d).size; })()"},
    {"value": "inOrder", "js": "(() => { const r = [...document.querySelectorAll('.m')].map(m => +m.id.slice(1)); return r.every((v, i) => i === 0 || v === r[i - 1] + 1); })()"},
    {"open": ")steps" + origin + R"steps(/search?q=syrup"},
    {"click": "#results .hit .open"},
    {"wait": "document.querySelector('.m img') !== null && document.querySelector('.m img').complete"},
    {"value": "picture", "js": "document.querySelector('.m img').naturalWidth"},
    {"open": ")steps" + origin + R"steps(/people"},
    {"value": "alice", "js": "[...document.querySelectorAll('.people tr')].filter(r => r.textContent.includes('Liddell')).map(r => r.textContent)"},
    {"click": ".people a[href='/person/alice.work']"},
    {"wait": "location.pathname === '/person/alice.work'"},
    {"value": "person", "js": "[document.querySelector('.facts').textContent, document.querySelectorAll('svg.months rect').length, document.querySelectorAll('.chats li').length]"},
    {"open": ")steps" + origin + R"steps(/calendar"},
    {"click": "a[href='/month/2005-12']"},
    {"wait": "location.pathname === '/month/2005-12'"},
    {"value": "month", "js": "[...document.querySelectorAll('.chats .who')].map(e => e.textContent)"}
  ])steps";
  EXPECT_EQ(report(home_, browsing(home_, steps)),
            "addressAfterOpening \"" + origin + "/\"\n"
            "addressWhileTyping \"/search?q=needle\"\n"
            "alice [\"Alice Liddell alice.work, alice19792162005-12-302006-01-26\"]\n"
            "daysOnce true\n"
            "hitInView [\"the needle is here\", true]\n"
            "inOrder true\n"
            "leftWhereTheReaderWent true\n"
            "markedInHit \"needle\"\n"
            "month [\"Alice\"]\n"
            "person [\"alice.work, alice1979: 2 chats, 16 words, 2005-12-30 to 2006-01-26\", 2, 1]\n"
            "picture 8\n"
            "readerScrolls true\n"
            "shownFirst 201\n"
            "failed None");
}

// Each way in that must stay shut, and what a stranger typed into a chat,
// over plain HTTP: nothing of the chats comes back without the token, to a
// foreign Host, outside the picture archive, or as markup.
TEST_F(Web, AnswersOnlyWithTheTokenAtItsOwnAddressAndNeverWithMarkupOrFilesFromOutside) {
  const WebView web(home_);
  const std::string port = web.port(), token = web.token();
  const std::string host = "Host: 127.0.0.1:" + port, cookie = "Cookie: parlova-token=" + token;
  const fs::path images = home_.path() / "Library" / "Parlova" / "Images";
  writeText(home_.path() / "secret.png", "not for the web");
  fs::create_symlink(home_.path() / "secret.png", images / "outside.png");
  std::string stored;
  for (const std::string &name : filesBelow(images))
    if (name.find("cake") != std::string::npos)
      for (const char ch : name)
        stored += std::isalnum(static_cast<unsigned char>(ch)) || ch == '.' || ch == '-'
                      ? std::string(1, ch)
                      : "%" + std::string(1, "0123456789ABCDEF"[ch >> 4 & 15]) + "0123456789ABCDEF"[ch & 15];
  ASSERT_FALSE(stored.empty());

  struct Case {
    const char *name;
    std::string target;
    std::vector<std::string> headers;
    int status;
  } cases[] = {
      {"no token", "/search?q=pancakes", {host}, 403},
      {"a wrong token", "/search?q=pancakes&token=" + std::string(64, '0'), {host}, 403},
      {"a wrong cookie", "/search?q=pancakes", {host, "Cookie: parlova-token=" + token.substr(1) + "0"}, 403},
      {"a name that rebinds", "/search?q=pancakes", {"Host: attacker.example:" + port, cookie}, 403},
      {"another port", "/search?q=pancakes", {"Host: 127.0.0.1:1", cookie}, 403},
      {"no Host", "/search?q=pancakes", {cookie}, 403},
      {"the cookie", "/search?q=pancakes", {host, cookie}, 200},
      {"by localhost", "/search?q=pancakes", {"Host: localhost:" + port, cookie}, 200},
      {"a picture kept", "/library/Images/" + stored, {host, cookie}, 200},
      {"up and out", "/library/Images/../history.sqlite", {host, cookie}, 404},
      {"up and out, encoded", "/library/Images/%2e%2e/%2E%2E/secret.png", {host, cookie}, 404},
      {"a slash encoded", "/library/Images/..%2f..%2fsecret.png", {host, cookie}, 404},
      {"a link leading out", "/library/Images/outside.png", {host, cookie}, 404},
      {"the history itself", "/library/history.sqlite", {host, cookie}, 404},
      {"a query of 1 MB", "/search?q=" + std::string(1 << 20, 'a'), {host, cookie}, 414},
      {"a query past the bound", "/search?format=json&q=" + std::string(1001, 'a'), {host, cookie}, 400},
      {"a chat not there", "/chat/99999", {host, cookie}, 404},
  };
  for (const Case &c : cases) {
    const HttpAnswer answer = httpGet(port, c.target, c.headers);
    EXPECT_EQ(answer.status, c.status) << c.name << "\n" << answer.head;
    if (c.status != 200) {
      EXPECT_EQ(answer.body.find("pancakes"), std::string::npos) << c.name;
      EXPECT_EQ(answer.body.find("not for the web"), std::string::npos) << c.name;
    }
  }

  // Opening the printed address sets the cookie and leads on without the token.
  const HttpAnswer opened = httpGet(port, "/?token=" + token, {host});
  EXPECT_EQ(opened.status, 303);
  EXPECT_NE(opened.head.find("Set-Cookie: parlova-token=" + token + "; Path=/; HttpOnly; SameSite=Strict"),
            std::string::npos)
      << opened.head;
  EXPECT_NE(opened.head.find("Location: /\r\n"), std::string::npos) << opened.head;
  EXPECT_NE(httpGet(port, "//attacker.example/?q=a&token=" + token, {host}).head.find("Location: /attacker.example?q=a\r\n"),
            std::string::npos);

  // Markup and script links typed by a chat partner, on every page they reach.
  const HttpAnswer found = httpGet(port, "/search?q=hostile", {host, cookie});
  const size_t chat = found.body.find("/chat/");
  ASSERT_NE(chat, std::string::npos) << found.body;
  const std::string chatAddress = found.body.substr(chat, found.body.find('"', chat) - chat);
  for (const std::string &target : {std::string("/search?q=hostile"), std::string("/search?q=alert&format=part"),
                                    std::string("/people"), std::string("/person/mallory"),
                                    std::string("/month/2006-05"), chatAddress.substr(0, chatAddress.find('?'))}) {
    const HttpAnswer page = httpGet(port, target, {host, cookie});
    EXPECT_EQ(page.status, 200) << target;
    for (const char *never : {"<script>alert", "<img src=x", "href=\"javascript:", "\"onmouseover"})
      EXPECT_EQ(page.body.find(never), std::string::npos) << target << " holds " << never;
    EXPECT_NE(page.head.find("Content-Security-Policy: default-src 'none'; script-src 'self';"), std::string::npos)
        << target;
  }
  const HttpAnswer chatPage = httpGet(port, chatAddress.substr(0, chatAddress.find('?')), {host, cookie});
  EXPECT_NE(chatPage.body.find("&lt;script&gt;alert(1)&lt;/script&gt;"), std::string::npos) << chatPage.body;
  EXPECT_NE(chatPage.body.find("<a href=\"http://ok.example/\" rel="), std::string::npos) << chatPage.body;

  // Connections that arrive while it cannot take them wait in the kernel,
  // none turned away to knock again a second later; then each is answered.
  constexpr int kAtOnce = 40;
  kill(web.pid(), SIGSTOP);
  std::vector<int> sockets;
  std::vector<pollfd> waiting;
  for (int i = 0; i < kAtOnce; ++i) {
    sockets.push_back(loopbackConnection(static_cast<unsigned>(std::stoi(port)), true));
    waiting.push_back({sockets.back(), POLLOUT, 0});
  }
  int connected = 0;
  for (auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
       connected < kAtOnce && std::chrono::steady_clock::now() < until;) {
    poll(waiting.data(), waiting.size(), 50);
    for (pollfd &each : waiting)
      if (each.revents & POLLOUT) {
        ++connected;
        each.fd = -1;
      }
  }
  kill(web.pid(), SIGCONT);
  EXPECT_EQ(connected, kAtOnce);
  const std::string asked = "GET /search?format=json&q=pancakes HTTP/1.1\r\n" + host + "\r\n" + cookie +
                            "\r\nConnection: close\r\n\r\n";
  int answered = 0;
  for (const int socket : sockets) {
    fcntl(socket, F_SETFL, 0);
    send(socket, asked.data(), asked.size(), MSG_NOSIGNAL);
    char head[16] = {};
    answered += recv(socket, head, sizeof head - 1, MSG_WAITALL) > 0 && std::string(head).starts_with("HTTP/1.1 200");
    close(socket);
  }
  EXPECT_EQ(answered, kAtOnce);

  // Its port is its own: a second server is refused it rather than given
  // half of the connections.
  const pid_t second = home_.start("parlova-web", {"--port", port});
  int status = 0;
  for (int i = 0; i < 100 && waitpid(second, &status, WNOHANG) == 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  if (kill(second, 0) == 0) {
    kill(second, SIGTERM);
    waitpid(second, &status, 0);
    ADD_FAILURE() << "a second server took the same port";
  } else {
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 2) << status;
  }

  // After all that, it still answers.
  EXPECT_EQ(httpGet(port, "/search?q=pancakes", {host, cookie}).status, 200);
}

// The JSON answer holds what parlova-search --json prints, hit for hit,
// plus an address that opens the chat at the message.
TEST_F(Web, TheJsonAnswerIsTheSearchToolsWithTheAddressOfEachMessage) {
  const WebView web(home_);
  const std::string host = "Host: 127.0.0.1:" + web.port(), cookie = "Cookie: parlova-token=" + web.token();
  struct Case {
    std::string query;
    std::vector<std::string> options; // the tool's, then the same as parameters
    std::string parameters;
  } cases[] = {
      {"pancakes", {}, ""},
      {"\"frequent flyer\"", {}, ""},
      {"4242*", {}, ""},
      {"needle OR syrup", {"--sort", "date"}, "&sort=date"},
      {"pancakes", {"--with", "alice"}, "&with=alice"},
      {"pancakes", {"--since", "2005-01-01", "--until", "2005-12-31"}, "&since=2005-01-01&until=2005-12-31"},
  };
  for (const Case &c : cases) {
    std::vector<std::string> arguments = {"--json"};
    arguments.insert(arguments.end(), c.options.begin(), c.options.end());
    arguments.push_back(c.query);
    writeText(home_.path() / "tool.json", home_.run("parlova-search", arguments).out);
    std::string encoded;
    for (const char ch : c.query)
      encoded += ch == ' ' ? "+" : ch == '"' ? "%22" : ch == '*' ? "%2A" : std::string(1, ch);
    const HttpAnswer answer = httpGet(web.port(), "/search?format=json&q=" + encoded + c.parameters, {host, cookie});
    ASSERT_EQ(answer.status, 200) << c.query << answer.body;
    writeText(home_.path() / "web.json", answer.body);
    const std::string compared = pythonReading(
        "import json, re, sys\n"
        "tool = [json.loads(l) for l in open(sys.argv[1] + '/tool.json')]\n"
        "web = json.load(open(sys.argv[1] + '/web.json'))\n"
        "urls = [h.pop('url') for h in web['hits']]\n"
        "ok = all(re.fullmatch(r'" + web.origin() + "/chat/[0-9]+\\?at=([0-9]+)#m\\1', u) for u in urls)\n"
        "print(len(tool), web['total'], tool == web['hits'], ok)\n",
        home_.path());
    const std::string count = std::to_string(countOccurrences(readText(home_.path() / "tool.json"), "\n"));
    EXPECT_EQ(compared, count + " " + count + " True True") << c.query;
    // The address leads to the chat, at that message and marked.
    const size_t url = answer.body.find("\"url\":\"");
    ASSERT_NE(url, std::string::npos);
    const std::string address = answer.body.substr(url + 7, answer.body.find('"', url + 7) - url - 7);
    const std::string row = address.substr(address.find("#m") + 2);
    const HttpAnswer chat = httpGet(web.port(), address.substr(web.origin().size(), address.find('#') - web.origin().size()),
                                    {host, cookie});
    EXPECT_NE(chat.body.find(" hit\" id=\"m" + row + "\""), std::string::npos) << address;
  }

  // Read while a catch-up writes: every answer whole, and the new chats
  // found as soon as they are in.
  for (int i = 0; i < 40; ++i) {
    TranscriptSpec more;
    more.others = {kBob};
    more.messages = {says(kBob, 200000000 + i * 86400.0, "waffles " + std::to_string(i))};
    home_.addTranscript("Bob on 2007-05-" + std::to_string(10 + i % 20) + " at 1" + std::to_string(i / 20) +
                            ".00.ichat",
                        more);
  }
  auto writing = std::async(std::launch::async, [&] { return home_.run("parlova", {"--catch-up", "--yes"}); });
  std::set<int> statuses;
  while (writing.wait_for(std::chrono::milliseconds(0)) != std::future_status::ready)
    statuses.insert(httpGet(web.port(), "/search?format=json&q=waffles+OR+pancakes", {host, cookie}).status);
  EXPECT_EQ(writing.get().exitCode, 0);
  EXPECT_EQ(statuses, std::set<int>{200});
  EXPECT_NE(httpGet(web.port(), "/search?format=json&q=waffles", {host, cookie}).body.find("\"total\":40,"),
            std::string::npos);
}

} // namespace
} // namespace parlova::testing
