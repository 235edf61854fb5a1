#!/bin/sh
# Makes the Debian packages of a build, installs them below a folder, runs the program, and removes
# them again.
#
#   check_packages.sh BUILD PREFIX [PYTHON]
#
# PREFIX is where the same build was installed by `cmake --install`. PYTHON is the interpreter for
# which it has a package, if it has one.
set -eu
build=$1 prefix=$2 python=${3:-}
root=$build/root
fail() { echo "$*"; exit 1; }
# Without root rights files cannot be given to root; fakeroot pretends.
if [ "$(id -u)" -ne 0 ]; then
  command -v fakeroot >/dev/null || fail "without root rights fakeroot is needed"
  [ -n "${FAKEROOTKEY:-}" ] || exec fakeroot "$0" "$@"
fi

rm -rf "$root" "$build/packages" "$build/packages_again"
for folder in packages packages_again; do
  cpack --config "$build/CPackConfig.cmake" -B "$build/$folder" >"$build/packages.log" 2>&1 ||
    { cat "$build/packages.log"; fail "no packages were made"; }
done
cd "$build/packages"
# The same sources give the same packages, whenever and wherever they are built.
for package in *.deb; do
  cmp "$package" "../packages_again/$package" || fail "$package is another one every time"
done
names=$(for package in *.deb; do dpkg-deb -f "$package" Package; done)
number=$(echo "$names" | wc -l)
[ "$number" -eq $((11 + ${python:+2}+0)) ] || fail "packages: $names"
lintian --allow-root --fail-on error,warning ./*.deb ||
  fail "lintian complains"

# dpkg knows what is installed on this machine, so that it refuses a package whose dependencies do
# not exist.
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
cp /var/lib/dpkg/status "$root/var/lib/dpkg/status"
# The packages' scripts run on this machine, but may not touch its libraries: their ldconfig only
# leaves a note.
mkdir "$root/bin"
printf '#!/bin/sh\necho called >>"%s/ldconfig.log"\n' "$root" >"$root/bin/ldconfig"
chmod +x "$root/bin/ldconfig"
package_manager() {
  PATH=$root/bin:$PATH dpkg --root="$root" --force-not-root --force-script-chrootless "$@" \
    >"$build/dpkg.log" 2>&1
}
install() {
  package_manager --install "$@" || { tail -n 20 "$build/dpkg.log"; fail "dpkg refuses $*"; }
}

# The program needs the libraries, and nothing that is for developers.
install libvelmar-2d[0-9]*.deb libvelmar-2d-io*.deb velmar-2d-tools*.deb
[ ! -e "$root/ldconfig.log" ] || fail "a package calls ldconfig itself"
[ "$(cat "$root"/var/lib/dpkg/info/*.triggers)" = "$(yes activate-noawait ldconfig | head -n 2)" ] ||
  fail "ldconfig is triggered for other than two libraries"
libraries=$(dirname "$(find "$root/usr/lib" -name 'libvelmar_2d.so.*' -type f)")
LD_LIBRARY_PATH=$libraries "$root/usr/bin/velmar_2d" stats 0.05 | grep -q '^nodes: ' ||
  fail "the program does not run"
LD_LIBRARY_PATH='' "$root/usr/bin/velmar_2d" --version >/dev/null 2>&1 &&
  fail "the program does not need its package's libraries"
for_developers=$(find "$root" -name '*.hpp' -o -name '*.so' -o -name '*.cmake' -o -name '*.pc')
[ -z "$for_developers" ] || fail "for developers: $for_developers"

# The Python package needs none of the libraries.
if [ -n "$python" ]; then
  package_manager --remove velmar-2d-tools $(echo "$names" | grep '^libvelmar-2d') ||
    { tail -n 20 "$build/dpkg.log"; fail "the program cannot be removed"; }
  install python3-velmar-2d*.deb
  PYTHONPATH=$root/usr/lib/python3/dist-packages PYTHONDONTWRITEBYTECODE=1 "$python" -c '
import importlib.metadata, velmar_2d
with velmar_2d.Mesh(nx=9) as mesh:
    mesh.update(0.05)
    assert importlib.metadata.version("velmar_2d") == velmar_2d.__version__
    assert velmar_2d.__file__.startswith("'"$root"'") and mesh.check() == []
from mpi4py import MPI
from velmar_2d.mpi import Partition
part = Partition(MPI.COMM_WORLD, nx=9)
part.resolve(0.05)
whole = part.gather()
assert whole.check() == [] and len(whole) == len(part) > 9 * 9' ||
    fail "the Python packages do not work"
fi

# Together the packages hold what an installation holds, and nothing else.
install ./*.deb
(cd "$prefix" && find . -type f -o -type l) | sort >"$build/installed"
(cd "$root/usr" && find . -type f -o -type l) | sort >"$build/packed"
diff "$build/installed" "$build/packed" || fail "the packages hold other files than the installation"

# The library stays as long as something needs it.
library=$(echo "$names" | grep '^libvelmar-2d[0-9]')
package_manager --remove "$library" && fail "$library can be removed although others depend on it"
# shellcheck disable=SC2086
package_manager --purge $names || { tail -n 20 "$build/dpkg.log"; fail "the packages cannot be removed"; }
left=$(find "$root" -path '*/usr/*' ! -type d)
[ -z "$left" ] || fail "left behind: $left"
echo "$number packages installed, run and removed"
