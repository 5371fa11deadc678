# Entry points: `make test`, `make sanitize`, `make bench`.
BUILD_DIR      ?= build
SANITIZE_DIR   ?= build-sanitize
THREAD_DIR     ?= build-thread
BENCH_DIR      ?= build-bench
JOBS           ?= 2

.PHONY: test sanitize tsan bench deps format clean

deps:
	@bash scripts/install-deps.sh

test: deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUARIL_BUILD_BENCHMARKS=ON
	cmake --build $(BUILD_DIR) -j$(JOBS)
	cd $(BUILD_DIR) && ctest --output-on-failure -j$(JOBS)

# The same tests under AddressSanitizer and UndefinedBehaviorSanitizer.
sanitize: deps
	cmake -S . -B $(SANITIZE_DIR) -DCMAKE_BUILD_TYPE=Debug -DQUARIL_SANITIZE=address,undefined \
	      -DQUARIL_BUILD_BENCHMARKS=OFF
	cmake --build $(SANITIZE_DIR) -j$(JOBS)
	cd $(SANITIZE_DIR) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
	      ctest --output-on-failure -j$(JOBS)

# The object core's tests under ThreadSanitizer (the handle counts are shared across threads).
tsan: deps
	cmake -S . -B $(THREAD_DIR) -DCMAKE_BUILD_TYPE=Debug -DQUARIL_SANITIZE=thread \
	      -DQUARIL_BUILD_BENCHMARKS=OFF
	cmake --build $(THREAD_DIR) -j$(JOBS) --target test_ostrak
	cd $(THREAD_DIR) && ctest --output-on-failure -j$(JOBS) -L ostrak

bench: deps
	cmake -S . -B $(BENCH_DIR) -DCMAKE_BUILD_TYPE=Release -DQUARIL_BUILD_TESTS=OFF
	cmake --build $(BENCH_DIR) -j$(JOBS) --target benchmarks
	@for program in $(BENCH_DIR)/bench/*; do \
	  if [ -x "$$program" ] && [ -f "$$program" ]; then echo "== $$program"; "$$program" || exit 1; fi; \
	done

format:
	clang-format -i $$(git ls-files '*.hpp' '*.cpp')

clean:
	rm -rf $(BUILD_DIR) $(SANITIZE_DIR) $(THREAD_DIR) $(BENCH_DIR)
