# Thin wrapper over the CMake presets.  `make demo` builds and runs the main
# job; `make test` builds and runs every test.  PRESET=asan|tsan|debug|clang
# selects another build.  `make package` builds the Debian package (CPack)
# into build/<preset>.
PRESET ?= default
DEPS := cmake ninja-build g++ clang libgtest-dev libgmock-dev libbenchmark-dev \
        libcli11-dev nlohmann-json3-dev liblmdb-dev procps graphviz \
        libzstd-dev pkgconf dpkg-dev file

.PHONY: all bootstrap build test demo bench package clean

all: build

bootstrap:
	@scripts/bootstrap.sh $(DEPS)

build: bootstrap
	cmake --preset $(PRESET) >/dev/null
	cmake --build --preset $(PRESET)

test: build
	ctest --preset $(PRESET)

demo: build
	PMDB_BUILD_DIR=build/$(PRESET) examples/demo.sh

bench: build
	PMDB_BUILD_DIR=build/$(PRESET) bench/run.sh

package: build
	cd build/$(PRESET) && cpack -G DEB

clean:
	rm -rf build
