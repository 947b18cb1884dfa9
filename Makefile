# Two commands do everything on a fresh Debian 12 machine: `make run` and `make test`.
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo

.PHONY: all deps build build-asan build-tsan test run bench format clean

all: build

deps:
	@scripts/install-deps.sh

build: deps
	cmake -S . -B build $(CMAKE_FLAGS)
	cmake --build build -j $(JOBS)

build-asan: deps
	cmake -S . -B build-asan $(CMAKE_FLAGS) -DBRINDLE_SANITIZER=address
	cmake --build build-asan -j $(JOBS)

build-tsan: deps
	cmake -S . -B build-tsan $(CMAKE_FLAGS) -DBRINDLE_SANITIZER=thread
	cmake --build build-tsan -j $(JOBS)

test: build build-asan build-tsan
	scripts/run-tests.sh build build-asan build-tsan

run: build
	scripts/run.sh

bench: build
	scripts/bench.sh

format:
	clang-format -i $$(git ls-files '*.cpp' '*.h')

clean:
	rm -rf build build-asan build-tsan
