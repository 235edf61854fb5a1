# Sourced by demo.sh, test.sh and bench.sh.

# Installs the Debian packages that are not there yet; without any to install it needs neither root
# rights nor a network.
install_packages() {
  local missing=() package
  for package in "$@"; do
    if [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" != installed ]; then
      missing+=("$package")
    fi
  done
  if [ ${#missing[@]} -eq 0 ]; then return; fi

  local as_root=()
  if [ "$(id -u)" -ne 0 ]; then as_root=(sudo); fi
  echo "installing ${missing[*]}"
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq update
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq -o DPkg::Lock::Timeout=300 \
    -o Dpkg::Use-Pty=0 install --no-install-recommends "${missing[@]}" >/dev/null
}

# make serves the link-time optimiser, which warns without it.
packages_for_the_demo=(g++ make cmake ninja-build pkg-config libcairo2-dev libpugixml-dev)
packages_to_build=("${packages_for_the_demo[@]}" libcli11-dev libdeflate-dev libeigen3-dev
                   libhdf5-dev libmuparser-dev nlohmann-json3-dev)
packages_for_python=(python3-dev pybind11-dev python3-numpy python3-scipy python3-matplotlib
                     python3-pil python3-pytest)
packages_to_test=("${packages_for_python[@]}" libgtest-dev python3-h5py python3-meshio)
packages_for_the_page=(emscripten)
# For the tests that only `./test.sh all` runs.
packages_to_test_all=(python3-venv python3-pip python3-setuptools python3-wheel doxygen fakeroot
                      dpkg-dev file lintian
                      valgrind clang-tidy cppcheck
                      g++-aarch64-linux-gnu g++-s390x-linux-gnu g++-i686-linux-gnu qemu-user
                      g++-mingw-w64-x86-64-posix wine64
                      "${packages_for_the_page[@]}" chromium chromium-driver python3-selenium)
# p4est's headers need those of the MPI that it was built with.
packages_to_compare=("${packages_for_the_demo[@]}" libbenchmark-dev libp4est-dev mpi-default-dev
                     libeigen3-dev python3)
