# The two commands of the README:
#   make run    install what is missing, build, run the main job
#   make test   install what is missing, build, run the tests twice
#               (plain, then under AddressSanitizer + UndefinedBehaviorSanitizer),
#               then each fuzz target for a few seconds
# and  make fuzz  runs each fuzz target for FUZZ_SECONDS (60 by default).
BUILD      ?= build
ASAN_BUILD ?= build-asan
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 60
# What make test gives each fuzz target.
TEST_FUZZ_SECONDS ?= 15
JOBS       ?= $(shell nproc)
ARGS       ?=
CMAKE_FLAGS ?=
ifeq ($(CI),true)
  CMAKE_FLAGS += -DFN_WERROR=ON
endif

DEB_PACKAGES := g++ cmake ninja-build libpoco-dev libgtest-dev libgmock-dev \
                libbenchmark-dev libconcurrentqueue-dev valgrind
# The peer that bench/cli_bench runs beside filenotify (inotifywait).
BENCH_PACKAGES := inotify-tools
# clang with libFuzzer (libclang-rt-dev holds its runtime).
FUZZ_PACKAGES := clang libclang-rt-dev

.PHONY: deps build run test test-plain test-asan test-fuzz fuzz memcheck bench format tidy clean

# Installs those of the Debian packages $(1) that are missing; apt-get runs
# only when one is.
define install_missing
	@missing=""; for p in $(1); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "install ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  SUDO=""; [ "$$(id -u)" -ne 0 ] && SUDO=sudo; \
	  $$SUDO apt-get update && DEBIAN_FRONTEND=noninteractive $$SUDO apt-get install -y $$missing; \
	fi
endef

deps:
	$(call install_missing,$(DEB_PACKAGES))

$(BUILD)/build.ninja: | deps
	cmake -S . -B $(BUILD) -G Ninja $(CMAKE_FLAGS)

build: deps $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

run: build
	$(BUILD)/bin/filenotify $(or $(ARGS),watch -r .)

test-plain: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 300

$(ASAN_BUILD)/build.ninja: | deps
	cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DFN_SANITIZE=ON -DFN_BUILD_BENCH=OFF $(CMAKE_FLAGS)

# The stress label runs in the plain build only: under the sanitizers its
# minutes would double.
test-asan: deps $(ASAN_BUILD)/build.ninja
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j $(JOBS) --timeout 300 -LE stress

# A failed install is no failure here: fuzz/run.sh says what is missing and skips.
test-fuzz: deps
	-$(call install_missing,$(FUZZ_PACKAGES))
	fuzz/run.sh $(FUZZ_BUILD) $(TEST_FUZZ_SECONDS) $(CMAKE_FLAGS)

fuzz: deps
	$(call install_missing,$(FUZZ_PACKAGES))
	fuzz/run.sh $(FUZZ_BUILD) $(FUZZ_SECONDS) $(CMAKE_FLAGS)

# The command under valgrind through a scripted session: no error, no leak.
memcheck: build
	bash tests/memcheck.sh $(BUILD)/bin/filenotify

test: test-plain test-asan memcheck test-fuzz

bench: build
	$(call install_missing,$(BENCH_PACKAGES))
	$(BUILD)/bin/framework_bench --benchmark_min_time=0.5
	$(BUILD)/bin/inotify_bench
	$(BUILD)/bin/module_bench
	$(BUILD)/bin/fanotify_bench
	$(BUILD)/bin/cli_bench
	$(BUILD)/bin/tree_bench

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

tidy: build
	git ls-files 'framework/*.cpp' 'message/*.cpp' 'native_module/*.cpp' 'tools/*.cpp' | \
	  xargs clang-tidy -p $(BUILD) --quiet

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD)
