# shellcheck shell=bash
#
# What the scripts share. A script starts with:
#
#   #!/bin/bash
#   set -euo pipefail
#   . "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
#
# and then has:
#   root, jobs             the top of the source tree, and how many CPUs there are
#   build_packages         what a build with jpipe and the tests needs
#   die TEXT...            print an error and exit 1
#   need_packages NAME...  install the Debian packages that are missing
#   need_run_directory     make sure that endpoints can be made
#   stage NAME COMMAND...  run one named stage, remember its result and time
#   summary                print the results of the stages; fails when one failed

# shellcheck disable=SC2034 # for the scripts that source this file
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=$(nproc)
build_packages=(g++ cmake ninja-build libczmq-dev libcli11-dev nlohmann-json3-dev libgtest-dev
  python3 python3-zmq)
export CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-$jobs}
export CTEST_PARALLEL_LEVEL=${CTEST_PARALLEL_LEVEL:-$jobs}

die() {
  echo "$(basename "$0"): $*" >&2
  exit 1
}

# Runs a command as root: directly, or through sudo, which may ask for a
# password only when there is somebody to answer.
as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  elif [ -t 0 ]; then
    sudo "$@"
  else
    sudo -n "$@"
  fi
}

# apt-get without questions, waiting its turn when another one runs.
apt_get() {
  as_root env DEBIAN_FRONTEND=noninteractive apt-get -q -y -o DPkg::Lock::Timeout=300 \
    -o Dpkg::Use-Pty=0 "$@"
}

package_installed() {
  dpkg-query -W -f '${db:Status-Status}\n' "$1" 2>/dev/null | grep -qx installed
}

# Installs those of the named packages that are missing. If it cannot, ends the script
# and names them.
need_packages() {
  local name missing=()
  if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
    echo "$(basename "$0"): no apt here; this needs the equivalents of these Debian packages: $*" >&2
    return 0
  fi
  for name in "$@"; do
    package_installed "$name" || missing+=("$name")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  if [ "$(id -u)" -ne 0 ] && ! command -v sudo >/dev/null; then
    die "these packages are missing, and only root can install them: ${missing[*]}"
  fi
  echo "installing: ${missing[*]}"
  # The package lists may be absent or old: fetch them if installing fails without.
  if ! apt_get install --no-install-recommends "${missing[@]}" >/dev/null 2>&1 &&
    ! { apt_get update && apt_get install --no-install-recommends "${missing[@]}"; } >/dev/null; then
    die "these packages are missing and could not be installed: ${missing[*]}"
  fi
}

# Makes sure that this user can make endpoints: makes the directory of their FIFOs as the
# library does, if it is missing. An existing one stays as the administrator has set it up.
# If it cannot, ends the script and says what to ask the administrator for.
run_directory=/var/run/jactor
need_run_directory() {
  [ -d "$run_directory" ] || make_run_directory 2>/dev/null ||
    die "no $run_directory, and no right to make it; ask an administrator for: install -d -m 2777 $run_directory"
  [[ -w $run_directory && -x $run_directory ]] ||
    die "$run_directory is not writable for $(id -un); ask an administrator for: chmod 2777 $run_directory"
}

# A user who may write to the parent directory does not need sudo.
make_run_directory() {
  install -d -m 2777 "$run_directory" || as_root install -d -m 2777 "$run_directory"
}

# The results so far. A script that continues for another one inherits them.
export JACTOR_STAGES=${JACTOR_STAGES:-}
export JACTOR_STAGES_PASSED=${JACTOR_STAGES_PASSED:-0}
export JACTOR_STAGES_FAILED=${JACTOR_STAGES_FAILED:-0}

# Runs COMMAND (a program or a function) as the stage NAME in a subshell with
# `set -e`, and goes on after a failure. Do not use it in a condition, where the shell
# would ignore `set -e`: `summary` has the result.
stage() {
  local name=$1 start=$SECONDS errexit=+e status word=ok
  shift
  [[ $- != *e* ]] || errexit=-e
  echo
  echo "==== $name"
  set +e
  (
    unset JACTOR_STAGES JACTOR_STAGES_PASSED JACTOR_STAGES_FAILED
    set -e
    "$@"
  )
  status=$?
  set "$errexit"
  if [ "$status" -eq 0 ]; then
    JACTOR_STAGES_PASSED=$((JACTOR_STAGES_PASSED + 1))
  else
    JACTOR_STAGES_FAILED=$((JACTOR_STAGES_FAILED + 1))
    word="FAILED (exit $status)"
  fi
  JACTOR_STAGES+=$(printf '%-12s %5d s  %s' "$name" $((SECONDS - start)) "$word")$'\n'
  echo "---- $name: $word"
}

# Prints one line per stage and the closing line; fails when a stage failed.
summary() {
  echo
  echo "==== summary"
  printf '%s' "$JACTOR_STAGES"
  echo "$JACTOR_STAGES_PASSED passed, $JACTOR_STAGES_FAILED failed"
  [ "$JACTOR_STAGES_FAILED" -eq 0 ]
}
