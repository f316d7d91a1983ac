# For ./demo and ./check: what they do where they are not run by root. Sourced; the current folder is the tree's.

# What sudo drops of the environment, and the two need: the way to the packages, and the settings of the run.
KEPT_BY_ROOT=(http_proxy https_proxy no_proxy HTTP_PROXY HTTPS_PROXY NO_PROXY ALL_PROXY all_proxy
  CI CCACHE_DISABLE CCACHE_DIR FERRO_FUZZ_SECONDS FERRO_TIDY_ANALYZE)

# become_root COMMAND...: replaces this process by the command run by root where sudo lets us; returns where it does not.
become_root() {
  local name kept=()
  command -v sudo >/dev/null || return 0
  sudo -- true || return 0
  for name in "${KEPT_BY_ROOT[@]}"; do
    [ -z "${!name+set}" ] || kept+=("$name=${!name}")
  done
  exec sudo -- env "${kept[@]}" "$@"
}

# What root has built belongs to whom the tree belongs to, who may want to go on with it.
give_build_back() {
  local owner
  owner=$(stat -c %u:%g .)
  if [ "$(id -u)" = 0 ] && [ "$owner" != 0:0 ] && [ -d build ]; then
    chown -R --no-dereference "$owner" build
  fi
}
