#!/usr/bin/env bash
# Runs Parlova on generated sample transcripts in a scratch home folder and
# says where to look. Usage: tools/demo.sh [BUILD_DIR]
set -euo pipefail
build=${1:-build}
build=$(cd "$build" && pwd)
demo_home=$(mktemp -d "${TMPDIR:-/tmp}/parlova-demo.XXXXXX")

export HOME="$demo_home"
export PARLOVA_PAUSE_SECONDS=0
# No iChat here: no osascript either, and every chat counts as finished.
chats="$HOME/Documents/iChats"
"$build/parlova-samples" "$chats"
echo "just notes" > "$chats/notes.txt"

echo
echo "== What Parlova reads from each sample =="
find "$chats" -name '*chat' -type f -print0 | sort -z | xargs -0 "$build/parlova-inspect"

# A loopback SMTP sink that keeps every message it receives as a .eml file.
mail="$HOME/received-mail"
mkdir -p "$mail"
/usr/bin/python3 "$(dirname "$0")/../tests/support/smtp_server.py" --mode accept --port-file "$HOME/.smtp-port" --dir "$mail" \
  2>/dev/null &
sink=$!
trap 'kill $sink 2>/dev/null' EXIT
for _ in $(seq 100); do [ -s "$HOME/.smtp-port" ] && break; sleep 0.1; done

# The templates, word lists and icon that ship, where an install puts them.
mkdir -p "$HOME/Library/Parlova/Images"
cp "$(dirname "$0")/../resources/"*.html "$(dirname "$0")/../resources/"*.plist "$HOME/Library/Parlova/"
cp "$(dirname "$0")/../resources/pdf.png" "$HOME/Library/Parlova/Images/"

defaults="$build/parlova-defaults"
"$defaults" write com.hollowmere.parlova debugMode -int 2
"$defaults" write com.hollowmere.parlova sendEmails -bool YES
"$defaults" write com.hollowmere.parlova emailServer 127.0.0.1
"$defaults" write com.hollowmere.parlova emailPort -int "$(cat "$HOME/.smtp-port")"
"$defaults" write com.hollowmere.parlova emailAddress you@example.org
"$defaults" write com.hollowmere.parlova emailOutgoing parlova@example.org
"$defaults" write com.hollowmere.parlova handleURLs -bool YES
"$defaults" write com.hollowmere.parlova handleImages -bool YES
"$defaults" write com.hollowmere.parlova keepHistory -bool YES
"$defaults" write com.hollowmere.parlova keepChatPages -bool YES

echo
echo "== What a catch-up would do (parlova --dry-run --catch-up) =="
"$build/parlova" --dry-run --catch-up

echo
echo "== Carrying every transcript through (parlova --catch-up --yes: the plan above was seen) =="
"$build/parlova" --catch-up --yes

echo
echo "== Finding a chat again (parlova-search --context 1 holiday) =="
"$build/parlova-search" --context 1 holiday || true

pages="$HOME/Library/Parlova"
echo
echo "Demo home: $HOME"
echo "Transcripts left in place:  $chats"
find "$chats" -name '*chat' -type f | sed 's/^/  /'
echo "Processed transcripts:      $HOME/Documents/iChats (Parlovaed)"
ls -1 "$HOME/Documents/iChats (Parlovaed)" | sed 's/^/  /'
echo "Emails received:"
find "$mail" -name '*.eml' | sort | sed 's/^/  /'
echo "Settings:                   $HOME/Library/Preferences/com.hollowmere.parlova.plist"
echo
echo "Open these in a browser:"
echo "  Links:      file://$pages/Links.html"
echo "  Pictures:   file://$pages/Images.html"
echo "  Statistics: file://$pages/stats.html (with charts from $pages/history.sqlite)"
echo "  Chat library: file://$pages/Chats/index.html"
echo "  Newest pictures: $pages/Images/topimages"
echo
echo "To search and browse every chat in a browser:"
echo "  HOME=$HOME $build/parlova-web     (then open the address it prints)"
