# Sourced by the scripts that run a built program: installs what is missing, builds quietly and
# brings Wine up for the rest of the script (down again when it exits). Sets root and build.
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=${BUILD_DIR:-$root/build}
bash "$root/scripts/setup.sh"
BUILD_DIR="$build" bash "$root/scripts/build.sh" >/dev/null
. "$root/scripts/wine-env.sh"
wine_up
trap wine_down EXIT
