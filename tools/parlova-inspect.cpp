// Shows what Parlova reads from transcript files, so that an archive can be
// checked before the tool moves anything.
//   parlova-inspect FILE...          the loaded model
//   parlova-inspect --plain FILE...  the plain-text rendering
//   parlova-inspect --html FILE...   the HTML rendering's bytes
//   parlova-inspect --archive FILE...  any archive's object graph as stored
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "foundation/CalendarFormat.h"
#include "foundation/TerminalText.h"
#include "foundation/TextAttributes.h"
#include "foundation/Unicode.h"
#include "model/ICLPChatLog.h"
#include "platform/FileManager.h"
#include "tools/ArchiveDump.h"

using namespace parlova;

namespace {

enum class Mode { Model, Plain, Html, Archive };

std::string describeAttribute(const std::string &name, const ObjectRef &value) {
  if (const auto font = objectAs<Font>(value)) {
    char size[32];
    std::snprintf(size, sizeof size, "%g", font->pointSize());
    return "font " + font->fontName() + " " + size;
  }
  if (const auto color = objectAs<Color>(value)) {
    std::string out = "color";
    const auto rgb = color->usingDeviceRGB();
    if (!rgb)
      return out + " (no RGB form)";
    char text[96];
    std::snprintf(text, sizeof text, " rgb(%g, %g, %g)", rgb->red, rgb->green, rgb->blue);
    return out + text;
  }
  if (const auto url = objectAs<URLObject>(value))
    return "link <" + url->absoluteString() + ">";
  if (name == "NSLink" && value)
    return "link \"" + value->description() + "\"";
  if (const auto attachment = objectAs<TextAttachment>(value)) {
    const auto &wrapper = attachment->fileWrapper();
    if (!wrapper)
      return "attachment (no file)";
    const std::string fileName = wrapper->preferredFilename().value_or("(unnamed)");
    if (wrapper->isDirectory())
      return "attachment folder " + fileName + " (" + std::to_string(wrapper->fileWrappers().size()) + " items)";
    return "attachment " + fileName + " (" + std::to_string(wrapper->regularFileContents().size()) + " bytes)";
  }
  return name + " " + (value ? value->className() : std::string("(null)"));
}

void printModel(const std::string &path, const ICLPChatLog &log) {
  std::cout << "file: " << terminalLine(path) << "\n";
  std::cout << "format: "
            << (log.format() == ICLPChatLog::Format::iChat2 ? "iChat 2 typed stream (.chat)" : "keyed archive (.ichat)")
            << "\n";
  std::cout << "primaryOtherParty: " << terminalLine(log.primaryOtherParty()) << "\n";
  const auto participants = log.participants();
  std::cout << "participants: " << participants.size() << " (" << log.NumberOfSpeakers() << " speakers)\n";
  for (const auto &participant : participants)
    std::cout << "  " << terminalLine(participant->Protocol()) << " " << terminalLine(participant->rawName())
              << " shown as " << terminalLine(participant->Name().value_or("(no name)")) << "\n";
  const auto messages = log.messages();
  std::cout << "messages: " << messages.size() << "\n";
  size_t number = 0;
  for (const auto &message : messages) {
    std::cout << "  [" << ++number << "] " << terminalLine(message->rawSpeaker().value_or("(no speaker)"));
    if (message->speaker())
      std::cout << " shown as " << terminalLine(message->Speaker().value_or("(no name)"));
    std::cout << " at "
              << (message->TimeStamp() ? describeDate(*message->TimeStamp()) : std::string("(no time)"));
    char flags[16];
    std::snprintf(flags, sizeof flags, "0x%x", message->mystery());
    std::cout << " flags " << flags << "\n";
    const auto &text = message->string();
    if (!text) {
      std::cout << "      (no text)\n";
      continue;
    }
    std::cout << "      text: " << terminalLine(quotedForDisplay(utf16ToUtf8(text->string()))) << "\n";
    for (const AttributeRun &run : text->runs()) {
      if (run.attributes->empty())
        continue;
      std::cout << "      run " << run.location << "+" << run.length << ":";
      const char *separator = " ";
      for (const auto &[name, value] : run.attributes->entries()) {
        std::cout << separator << terminalLine(describeAttribute(name, value));
        separator = "; ";
      }
      std::cout << "\n";
    }
  }
}

int usage() {
  std::cerr << "usage: parlova-inspect [--plain | --html | --archive] FILE...\n";
  return 2;
}

} // namespace

int main(int argc, char **argv) {
  Mode mode = Mode::Model;
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--plain")
      mode = Mode::Plain;
    else if (arg == "--html")
      mode = Mode::Html;
    else if (arg == "--archive")
      mode = Mode::Archive;
    else if (arg == "--help" || arg == "-h")
      return usage();
    else if (arg.size() > 1 && arg.front() == '-') {
      std::cerr << "parlova-inspect: unknown option '" << arg << "'\n";
      return usage();
    } else
      files.push_back(arg);
  }
  if (files.empty())
    return usage();
  if (mode == Mode::Archive) {
    int status = 0;
    for (const std::string &file : files) {
      const auto bytes = readFileContents(file);
      const auto dump = bytes ? dumpArchive(*bytes) : std::string("cannot read the file");
      if (const auto *why = std::get_if<std::string>(&dump)) {
        std::cerr << "parlova-inspect: " << file << ": " << *why << "\n";
        status = 1;
        continue;
      }
      // Class names and keys are the archive's own, typed by anyone.
      std::cout << "file: " << terminalLine(file) << "\n";
      const std::string &text = std::get<DumpedArchive>(dump).text;
      for (size_t start = 0, end; start < text.size(); start = end + 1) {
        end = std::min(text.find('\n', start), text.size());
        std::cout << terminalLine(std::string_view(text).substr(start, end - start)) << "\n";
      }
    }
    return status;
  }
  int status = 0;
  for (const std::string &file : files) {
    const auto log = ICLPChatLog::initWithFilePath(file);
    if (!log) {
      std::cerr << "parlova-inspect: " << file << ": " << ICLPChatLog::reasonNotLoaded(file) << "\n";
      status = 1;
      continue;
    }
    if (mode == Mode::Plain) {
      std::cout << log->PlainChatLog();
    } else if (mode == Mode::Html) {
      const auto html = log->HTMLChatLog();
      std::cout.write(reinterpret_cast<const char *>(html.data()), static_cast<std::streamsize>(html.size()));
    } else {
      printModel(file, *log);
    }
  }
  return status;
}
