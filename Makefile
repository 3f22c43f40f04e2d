# make        build the library and the tools
# make test   every test: native, under the sanitizers, the 32-bit build, and the Windows build under wine
# make demo   run the main job against the built-in device emulator
# make fuzz   every fuzzer for FUZZ_EACH seconds (300 by default)
# make bench  run the benchmarks
# make package  Debian packages of the library, its development files and the tools (build/release/packages)
# make dist   the Windows zip: DLL, import libraries, header, tools, docs/windows.md (build/dist)
# make mutants  the mutation check of the native tests (scripts/mutants.py, docs/testing.md)

SHELL     := /bin/bash
JOBS      ?= $(shell nproc)
BUILD     := build
NATIVE    := $(BUILD)/release
ASAN      := $(BUILD)/asan
TSAN      := $(BUILD)/tsan
FUZZ      := $(BUILD)/fuzz
WIN64     := $(BUILD)/win-x86_64
WIN32     := $(BUILD)/win-i686
M32       := $(BUILD)/m32
CMAKE_GEN := -G Ninja -DMODBUS_VUKRA_WERROR=ON

.PHONY: all deps native win test test-native test-asan test-tsan test-m32 test-fuzz fuzz fuzz-build demo bench package dist mutants clean

all: native

deps:
	@scripts/deps.sh

native: deps
	@cmake -S . -B $(NATIVE) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMODBUS_VUKRA_WIN_BUILD=$(abspath $(WIN64)) -DMODBUS_VUKRA_INSTALL_TESTS=ON >/dev/null
	@cmake --build $(NATIVE) -j $(JOBS)

win: deps
	@cmake -S . -B $(WIN64) $(CMAKE_GEN) -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-x86_64.cmake -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build $(WIN64) -j $(JOBS)
	@cmake -S . -B $(WIN32) $(CMAKE_GEN) -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-i686.cmake -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build $(WIN32) -j $(JOBS)

test-native: native win
	cd $(NATIVE) && ctest -j $(JOBS) --output-on-failure

test-asan: deps
	@cmake -S . -B $(ASAN) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Debug -DMODBUS_VUKRA_SANITIZE=address,undefined -DMODBUS_VUKRA_BENCH=OFF >/dev/null
	@cmake --build $(ASAN) -j $(JOBS)
	cd $(ASAN) && ctest -j $(JOBS) --output-on-failure

test-tsan: deps
	@cmake -S . -B $(TSAN) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Debug -DMODBUS_VUKRA_SANITIZE=thread -DMODBUS_VUKRA_BENCH=OFF >/dev/null
	@cmake --build $(TSAN) -j $(JOBS)
	cd $(TSAN) && ctest -j $(JOBS) --output-on-failure

# The native 32-bit build (cmake/linux-i686.cmake) and its suite; paired with
# the 64-bit tools, it must make the same cards and work their vukra-sim and
# vukra both ways.
test-m32: native
	@cmake -S . -B $(M32) $(CMAKE_GEN) -DCMAKE_TOOLCHAIN_FILE=cmake/linux-i686.cmake -DCMAKE_BUILD_TYPE=Release -DMODBUS_VUKRA_PEER_TOOLS=$(abspath $(NATIVE))/tools >/dev/null
	@cmake --build $(M32) -j $(JOBS)
	cd $(M32) && ctest -j $(JOBS) --output-on-failure

# The fuzzers, built with clang, for a bounded time on every run: the six
# share FUZZ_SECONDS equally (the image fuzzer takes what the division
# leaves over); `make fuzz` runs each for FUZZ_EACH seconds instead.
# One fuzzer: its name, seconds, longest input and corpus folder; only its
# summary lines are shown, and its own status is the recipe's.
fuzz = $(FUZZ)/tests/fuzz/$(1) -max_total_time=$(2) -max_len=$(3) -print_final_stats=1 $(abspath $(FUZZ))/$(4) 2>&1 \
  | grep -E 'Done|stat::number_of_executed_units|ERROR|SUMMARY' ; test $${PIPESTATUS[0]} -eq 0
FUZZ_SECONDS ?= 42
FUZZ_EACH ?= 300
fuzz_share = $$(( $(FUZZ_SECONDS) / 6 > 0 ? $(FUZZ_SECONDS) / 6 : 1 ))

# The fuzz build and its corpus folders, seeded by scripts/fuzz_seeds.sh.
fuzz-build: deps
	@CC=clang CXX=clang++ cmake -S . -B $(FUZZ) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMODBUS_VUKRA_FUZZ=ON -DMODBUS_VUKRA_SANITIZE=address,undefined >/dev/null
	@cmake --build $(FUZZ) -j $(JOBS)
	@mkdir -p $(FUZZ)/corpus $(FUZZ)/corpus-replies $(FUZZ)/corpus-server
	@scripts/fuzz_seeds.sh $(FUZZ)

# All six, $(1) seconds each but the image fuzzer's $(2).
define fuzz_all
	@$(call fuzz,ufs_image_fuzzer,$(2),4096,corpus)
	@$(call fuzz,remotefs_reply_fuzzer,$(1),2048,corpus-replies)
	@$(call fuzz,local_server_fuzzer,$(1),2048,corpus-server)
	@$(call fuzz,slip_fuzzer,$(1),8192,corpus-slip)
	@$(call fuzz,ascii_frame_fuzzer,$(1),1200,corpus-frames)
	@$(call fuzz,xml_reader_fuzzer,$(1),4096,corpus-xml)
endef

test-fuzz: fuzz-build
	$(call fuzz_all,$(fuzz_share),$$(( $(FUZZ_SECONDS) - 5 * $(fuzz_share) > 0 ? $(FUZZ_SECONDS) - 5 * $(fuzz_share) : 1 )))

fuzz: fuzz-build
	$(call fuzz_all,$(FUZZ_EACH),$(FUZZ_EACH))

# The native run comes last so that its summary closes the output.
test: test-asan test-tsan test-fuzz test-m32 test-native

demo: native
	@scripts/demo.sh $(NATIVE)

bench: native
	@scripts/bench.sh $(NATIVE)

package: native
	@cd $(NATIVE) && cpack -G DEB >/dev/null
	@ls $(NATIVE)/packages/*.deb

dist: win
	@scripts/dist.sh $(BUILD)/dist $(WIN64) $(WIN32)

# MUTANTS=id1,id2 or a pattern runs some; MUTANTS_BEFORE=file compares.
mutants: deps
	@/usr/bin/python3 scripts/mutants.py

clean:
	rm -rf $(BUILD)
