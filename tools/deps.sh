# Installs the Debian packages a build needs, only when one is missing.
# Usage: source tools/deps.sh; intf_need_packages pkg...
intf_need_packages() {
   local missing=()
   for p in "$@"; do
      dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
   done
   if [ ${#missing[@]} -gt 0 ]; then
      echo "installing: ${missing[*]}"
      local sudo=""
      [ "$(id -u)" -ne 0 ] && sudo="sudo"
      $sudo apt-get update -qq
      DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
   fi
}
INTF_BASE_PACKAGES=(cmake ninja-build g++ libgtest-dev libgmock-dev libbenchmark-dev pkg-config)
# gRPC and protobuf, for intf-gnmid alone (the build skips it without them).
INTF_GNMI_PACKAGES=(libgrpc++-dev libprotobuf-dev protobuf-compiler protobuf-compiler-grpc)
# Packages a test can do without (it is skipped, saying why): a failed
# installation of these does not stop the run.
intf_want_packages() {
   intf_need_packages "$@" || echo "could not install $*: the tests that need them will say so and skip"
}
