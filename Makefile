# The two set-up commands: `make demo` and `make test`. Each installs what it
# needs (Debian packages, as root) and builds before it runs.
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc)
CMAKE      ?= cmake

ifeq ($(CI),true)
WERROR := -DEDR_WERROR=ON
endif

.PHONY: all deps build asan-build test test-asan demo bench fuzz install package clean format format-check

all: build

deps:
	@bash scripts/install-deps.sh

build: deps
	$(CMAKE) -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(WERROR)
	$(CMAKE) --build $(BUILD) -j$(JOBS)

asan-build: deps
	$(CMAKE) -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DEDR_SANITIZE=ON $(WERROR)
	$(CMAKE) --build $(ASAN_BUILD) -j$(JOBS)

# The whole suite runs twice: a plain build and an ASan/UBSan build.
test: format-check build asan-build
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest --output-on-failure -j$(JOBS)

# DEMO_KEEP=1 keeps the console and the agent running until Ctrl-C.
DEMO_KEEP ?= 0
demo: build
	DEMO_KEEP=$(DEMO_KEEP) bash scripts/demo.sh $(BUILD)

bench: deps
	$(CMAKE) -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DEDR_BENCH=ON -DEDR_TESTS=OFF
	$(CMAKE) --build build-bench -j$(JOBS)
	bash bench/run.sh build-bench

fuzz: deps
	CXX=clang++ $(CMAKE) -S . -B build-fuzz -DCMAKE_BUILD_TYPE=Debug -DEDR_FUZZ=ON -DEDR_TESTS=OFF
	$(CMAKE) --build build-fuzz -j$(JOBS)
	bash fuzz/run.sh build-fuzz

install: build
	$(CMAKE) --install $(BUILD)

# Debian packages (edr-agent, edr-console and their -dbgsym) in $(BUILD)/,
# built from debian/ by dpkg-buildpackage in its own build tree; lintian must
# find no error or warning in them.
DEB_VERSION = $(shell dpkg-parsechangelog -S Version)
DEB_ARCH    = $(shell dpkg-architecture -qDEB_HOST_ARCH)
package: deps
	mkdir -p $(BUILD)
	EDR_DEB_DESTDIR=$(abspath $(BUILD)) dpkg-buildpackage -us -uc -b \
	  --buildinfo-option=-u$(abspath $(BUILD)) --changes-option=-u$(abspath $(BUILD)) \
	  --buildinfo-file=$(BUILD)/edr-agent_$(DEB_VERSION)_$(DEB_ARCH).buildinfo \
	  --changes-file=$(BUILD)/edr-agent_$(DEB_VERSION)_$(DEB_ARCH).changes
	lintian --fail-on error,warning $(BUILD)/edr-agent_$(DEB_VERSION)_$(DEB_ARCH).deb \
	  $(BUILD)/edr-console_$(DEB_VERSION)_$(DEB_ARCH).deb
	@ls $(BUILD)/*_$(DEB_VERSION)_$(DEB_ARCH).deb

# Every tracked C++ file as clang-format writes it; `make format` fixes them.
CXX_SOURCES = git ls-files -z -- '*.cpp' '*.h'
format: deps
	$(CXX_SOURCES) | xargs -0 clang-format -i

format-check: deps
	@$(CXX_SOURCES) | xargs -0 clang-format --dry-run -Werror
	@echo "format-check: every tracked C++ file follows .clang-format"

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) build-bench build-fuzz
