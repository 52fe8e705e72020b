# Sourced by the scripts: the Wine environment of one build tree, with the prefix inside it.
# Expects $build to name the build folder.
export WINEPREFIX="$build/wineprefix"
export WINEDEBUG="${WINEDEBUG:--all}"
export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:-mscoree,mshtml=}"

# Creates the prefix on first use, without dialogs, and keeps one wineserver up so that
# every program of the run starts fast.
wine_up() {
  mkdir -p "$WINEPREFIX"
  wineserver -p 2>/dev/null || true  # already up is fine
  # wineboot creates the prefix on first use and starts Wine's own services. They live as
  # long as the server; started here, they hold /dev/null and not the pipe of a test,
  # which would otherwise wait for them to close it.
  wine wineboot -i </dev/null >/dev/null 2>&1 || true
}

wine_down() {
  wineserver -k >/dev/null 2>&1 || true
}
