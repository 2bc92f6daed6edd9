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

echo
echo "== Running parlova until every transcript is processed =="
"$build/parlova-defaults" write com.hollowmere.parlova debugMode -int 2
for run in 1 2 3 4 5 6 7 8; do
  before=$(find "$chats" -name '*chat' -type f | wc -l)
  [ "$before" -eq 0 ] && break
  echo "-- run $run"
  "$build/parlova"
done

echo
echo "Demo home: $HOME"
echo "Transcripts left in place:  $chats"
echo "Processed transcripts:      $HOME/Documents/iChats (Parlovaed)"
ls -1 "$HOME/Documents/iChats (Parlovaed)"
echo "Settings:                   $HOME/Library/Preferences/com.hollowmere.parlova.plist"
"$build/parlova-defaults" read com.hollowmere.parlova
