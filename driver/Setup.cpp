#include "driver/Setup.h"

#include <algorithm>
#include <cstdio>
#include <system_error>
#include <vector>

#include "context/MailSettings.h"
#include "context/Settings.h"
#include "generator/ICLPLogGenerator.h"
#include "platform/Home.h"
#include "platform/Log.h"

namespace parlova {

namespace fs = std::filesystem;

namespace {

constexpr const char *kTemplates[] = {"linktemplate.html", "imagetemplate.html", "statstemplate.html",
                                      "chattemplate.html"};

} // namespace

std::optional<fs::path> shippedFilesFolder() {
  std::vector<fs::path> candidates;
  std::error_code error;
  const fs::path program = fs::read_symlink("/proc/self/exe", error);
  if (!error)
    candidates.push_back(program.parent_path().parent_path() / "share" / "parlova");
#ifdef PARLOVA_SHARE_DIR
  candidates.push_back(PARLOVA_SHARE_DIR);
#endif
#ifdef PARLOVA_SOURCE_RESOURCES
  candidates.push_back(PARLOVA_SOURCE_RESOURCES);
#endif
  for (const fs::path &folder : candidates)
    if (fs::exists(folder / "statstemplate.html", error))
      return folder;
  return std::nullopt;
}

int setUp() {
  const auto shipped = shippedFilesFolder();
  if (!shipped) {
    std::fprintf(stderr, "parlova: the shipped templates and word lists are not installed (looked for "
                         "share/parlova beside the program); reinstall Parlova\n");
    return 1;
  }
  const fs::path library = ICLPLogGenerator::parlovaFolder();
  const fs::path home = homeDirectory();
  std::error_code error;
  for (const fs::path &folder : {library / "Images", home / "Documents" / "iChats",
                                 home / "Documents" / "iChats (Parlovaed)"}) {
    if (!fs::exists(folder, error) && fs::create_directories(folder, error))
      std::printf("made     %s\n", folder.c_str());
    if (error) {
      std::fprintf(stderr, "parlova: could not make %s: %s\n", folder.c_str(), error.message().c_str());
      return 1;
    }
  }
  std::vector<fs::path> files;
  for (const auto &entry : fs::directory_iterator(*shipped, error))
    files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  int failed = 0;
  for (const fs::path &file : files) {
    const fs::path name = file.filename();
    const fs::path target = (name == "pdf.png" ? library / "Images" : library) / name;
    if (fs::exists(target, error) || fs::is_symlink(target, error)) {
      std::printf("kept     %s\n", target.c_str());
    } else if (fs::copy_file(file, target, error)) {
      std::printf("added    %s\n", target.c_str());
    } else {
      std::fprintf(stderr, "parlova: could not copy %s to %s: %s\n", file.c_str(), target.c_str(),
                   error.message().c_str());
      failed = 1;
    }
  }
  const std::string write = "       parlova-defaults write " + std::string(kSettingsDomain) + " ";
  std::string steps = "\nNext steps:\n"
                      "  1. Settings (man parlova-defaults lists them all). Mail, for example into a Maildir:\n";
  for (const char *setting : {"sendEmails -bool YES", "emailDelivery maildir", "emailAddress me@example.org",
                              "emailOutgoing parlova@example.org"})
    steps += write + setting + "\n";
  steps += "     Each delivery needs these settings:\n";
  for (const DeliveryName &delivery : kDeliveryNames) {
    steps += "     ";
    steps += delivery.name;
    steps += ':';
    for (const NeededSetting &needed : settingsNeededBy(delivery.kind)) {
      steps += ' ';
      steps += needed.key;
    }
    steps += delivery.kind == DeliveryKind::Imap   ? " emailPasswordCommand (or emailPassword)\n"
             : delivery.kind == DeliveryKind::Smtp ? " (for a login: emailNeedsUsername emailUsername "
                                                     "emailPasswordCommand)\n"
                                                   : " (emailMaildir: ~/Maildir when not set)\n";
  }
  steps += "     Links, pictures and the searchable history:\n";
  for (const char *setting : {"handleURLs -bool YES", "handleImages -bool YES", "keepHistory -bool YES"})
    steps += write + setting + "\n";
  steps += "  2. See the plan, then carry the transcripts already in " + (home / "Documents" / "iChats").string() +
           " through once:\n"
           "       parlova --dry-run --catch-up\n"
           "       parlova --catch-up\n"
           "     (Processed with mail off? parlova --mail-processed mails them afterwards.)\n"
           "  3. Run parlova every five minutes:\n"
           "       systemctl --user daemon-reload && systemctl --user enable --now parlova.timer\n"
           "     (on a machine nobody logs in to: loginctl enable-linger)\n"
           "     or, without systemd, with this line in crontab -e:\n"
           "       */5 * * * * parlova\n";
  std::fputs(steps.c_str(), stdout);
  return failed;
}

void noteMissingTemplates() {
  const fs::path library = ICLPLogGenerator::parlovaFolder();
  std::error_code error;
  for (const char *name : kTemplates)
    if (fs::exists(library / name, error))
      return;
  logFormat("No page templates in %@, so no pages are made; parlova --setup puts them there.", library.string());
}

} // namespace parlova
