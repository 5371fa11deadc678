# Entry points: `make demo`, `make test`, `make interop`, `make test-mpi`, `make sanitize`, `make bench`,
# `make bench-mpi`, `make fuzz`.
BUILD_DIR      ?= build
SANITIZE_DIR   ?= build-sanitize
THREAD_DIR     ?= build-thread
BENCH_DIR      ?= build-bench
FUZZ_DIR       ?= build-fuzz
MPI_DIR        ?= build-mpi
FUZZ_SECONDS   ?= 60
JOBS           ?= 2

.PHONY: demo test interop test-mpi sanitize tsan bench bench-mpi fuzz deps format clean

deps:
	@bash scripts/install-deps.sh

# Builds bundle-tool and runs its demo: a sample data set written, reopened
# lazily and summarised (the file stays in $(BUILD_DIR)/demo).
demo: deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD_DIR) -j$(JOBS) --target bundle-tool
	$(BUILD_DIR)/tools/bundle-tool demo $(BUILD_DIR)/demo

test: deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUARIL_BUILD_BENCHMARKS=ON
	cmake --build $(BUILD_DIR) -j$(JOBS)
	cd $(BUILD_DIR) && ctest --output-on-failure -j$(JOBS)

# ParaView (headless) as a real client of the XDMF descriptors of the demo data
# and of a bundle of every mesh kind; then renders the demo data into docs/demo.png.
interop: deps
	@bash scripts/install-deps.sh interop
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUARIL_BUILD_TESTS=ON
	cmake --build $(BUILD_DIR) -j$(JOBS) --target bundle-tool quaril_python interop_every_kind
	xvfb-run -a pvpython tests/interop/check_paraview.py $(BUILD_DIR)/tools/bundle-tool \
	      $(BUILD_DIR)/python/package $(BUILD_DIR)/tests/interop_every_kind
	xvfb-run -a pvpython scripts/render_demo.py $(BUILD_DIR)/tools/bundle-tool docs/demo.png

# The HDF5 format on MPI and parallel HDF5: its tests under mpiexec on 1, 2 and 4 ranks.
test-mpi: deps
	@bash scripts/install-deps.sh mpi
	cmake -S . -B $(MPI_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUARIL_MPI=ON \
	      -DQUARIL_BUILD_BENCHMARKS=OFF -DQUARIL_BUILD_EXAMPLES=OFF
	cmake --build $(MPI_DIR) -j$(JOBS) --target test_hdf5_mpi
	cd $(MPI_DIR) && ctest -L mpi --output-on-failure

# The collective save against one serial file per rank, on 1 and 2 ranks.
bench-mpi: deps
	@bash scripts/install-deps.sh mpi
	cmake -S . -B $(MPI_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUARIL_MPI=ON \
	      -DQUARIL_BUILD_BENCHMARKS=OFF -DQUARIL_BUILD_EXAMPLES=OFF
	cmake --build $(MPI_DIR) -j$(JOBS) --target bench_hdf5_mpi
	@for ranks in 1 2; do \
	  OMPI_ALLOW_RUN_AS_ROOT=1 OMPI_ALLOW_RUN_AS_ROOT_CONFIRM=1 \
	    mpiexec -n $$ranks $(MPI_DIR)/bench/mpi/bench_hdf5_mpi || exit 1; \
	done

# The same tests under AddressSanitizer and UndefinedBehaviorSanitizer.
sanitize: deps
	cmake -S . -B $(SANITIZE_DIR) -DCMAKE_BUILD_TYPE=Debug -DQUARIL_SANITIZE=address,undefined \
	      -DQUARIL_BUILD_BENCHMARKS=OFF
	cmake --build $(SANITIZE_DIR) -j$(JOBS)
	cd $(SANITIZE_DIR) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
	      LSAN_OPTIONS=suppressions=$(CURDIR)/scripts/lsan-suppressions.txt:print_suppressions=0 \
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
	@if [ -d $(BENCH_DIR)/python/package ]; then \
	  for script in bench/python_read.py bench/python_peers.py; do echo "== $$script"; \
	    PYTHONPATH=$(BENCH_DIR)/python/package /usr/bin/python3 $$script || exit 1; done; fi

# The loader's fuzz target, built with clang and run for FUZZ_SECONDS.
fuzz:
	@bash scripts/install-deps.sh fuzz
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	      -DQUARIL_FUZZ=ON -DQUARIL_SANITIZE=fuzzer-no-link,address,undefined \
	      -DQUARIL_BUILD_TESTS=OFF -DQUARIL_BUILD_BENCHMARKS=OFF -DQUARIL_BUILD_EXAMPLES=OFF
	cmake --build $(FUZZ_DIR) -j$(JOBS) --target load_fuzzer fuzz_seeds
	bash fuzz/run.sh $(FUZZ_DIR) $(FUZZ_SECONDS)

format:
	clang-format -i $$(git ls-files '*.hpp' '*.cpp')

clean:
	rm -rf $(BUILD_DIR) $(SANITIZE_DIR) $(THREAD_DIR) $(BENCH_DIR) $(FUZZ_DIR) $(MPI_DIR)
