# Entry points for newcomers and CI. Every target installs missing Debian
# packages first (idempotent) and builds out of tree.
BUILD      ?= build
GENERATOR  ?= Ninja
JOBS       ?= 2

.PHONY: all deps build test clean format

all: build

deps:
	@scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD) -G $(GENERATOR) $(CMAKE_ARGS)
	cmake --build $(BUILD) -j $(JOBS)

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS) --timeout 300

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD)
