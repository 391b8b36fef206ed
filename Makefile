# Entry points for newcomers and CI. Every target installs missing Debian
# packages first (idempotent) and builds out of tree.
BUILD      ?= build
GENERATOR  ?= Ninja
JOBS       ?= 2

.PHONY: all deps build test test-sanitize clean format

all: build

deps:
	@scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD) -G $(GENERATOR) $(CMAKE_ARGS)
	cmake --build $(BUILD) -j $(JOBS)

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS) --timeout 300

# The whole suite built with clang, AddressSanitizer and UBSan. Only the two
# blocks the client abandons on purpose are suppressed, each by name.
SAN_BUILD ?= build-sanitize
test-sanitize: deps
	CXX=clang++ cmake -S . -B $(SAN_BUILD) -G $(GENERATOR) \
	  -DCMAKE_BUILD_TYPE=Debug -DTOVAPI_SANITIZE=ON $(CMAKE_ARGS)
	cmake --build $(SAN_BUILD) -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1 \
	LSAN_OPTIONS=suppressions=$(CURDIR)/tests/lsan.supp:print_suppressions=0 \
	UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --test-dir $(SAN_BUILD) --output-on-failure -j $(JOBS) --timeout 300

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD)
