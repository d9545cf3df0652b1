# The two commands of the README:
#   make run    install what is missing, build, run the main job
#   make test   install what is missing, build, run the tests twice
#               (plain, then under AddressSanitizer + UndefinedBehaviorSanitizer)
BUILD      ?= build
ASAN_BUILD ?= build-asan
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

.PHONY: deps build run test test-plain test-asan memcheck bench format tidy clean

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

test-asan: deps $(ASAN_BUILD)/build.ninja
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j $(JOBS) --timeout 300

# The command under valgrind through a scripted session: no error, no leak.
memcheck: build
	bash tests/memcheck.sh $(BUILD)/bin/filenotify

test: test-plain test-asan memcheck

bench: build
	$(call install_missing,$(BENCH_PACKAGES))
	$(BUILD)/bin/framework_bench --benchmark_min_time=0.5
	$(BUILD)/bin/inotify_bench
	$(BUILD)/bin/module_bench
	$(BUILD)/bin/fanotify_bench
	$(BUILD)/bin/cli_bench

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

tidy: build
	git ls-files 'framework/*.cpp' 'message/*.cpp' 'native_module/*.cpp' 'tools/*.cpp' | \
	  xargs clang-tidy -p $(BUILD) --quiet

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)
