// Runs the tests on every rank of MPI_COMM_WORLD. Rank 0 prints as usual; the
// other ranks print only their failures, marked with their rank. Every rank
// exits with a failure when the tests failed on any rank, so the launcher's
// status does not depend on which rank it reports.

#include <gtest/gtest.h>
#include <mpi.h>

#include <cstdio>

namespace {

class FailurePrinter : public testing::EmptyTestEventListener {
 public:
  explicit FailurePrinter(int rank) : rank_(rank) {}

  void OnTestPartResult(const testing::TestPartResult& result) override {
    if (!result.failed()) return;
    std::fprintf(stderr, "[rank %d] %s:%d: %s\n", rank_,
                 result.file_name() ? result.file_name() : "?", result.line_number(),
                 result.message());
  }

  void OnTestEnd(const testing::TestInfo& test) override {
    if (test.result()->Failed()) {
      std::fprintf(stderr, "[rank %d] FAILED %s.%s\n", rank_, test.test_suite_name(), test.name());
    }
  }

 private:
  int rank_;
};

}  // namespace

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  testing::InitGoogleTest(&argc, argv);
  int rank = 0;
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  if (rank != 0) {
    testing::TestEventListeners& listeners = testing::UnitTest::GetInstance()->listeners();
    delete listeners.Release(listeners.default_result_printer());
    listeners.Append(new FailurePrinter(rank));
  }
  const int failedHere = RUN_ALL_TESTS() != 0 ? 1 : 0;
  int failedAnywhere = failedHere;
  MPI_Allreduce(&failedHere, &failedAnywhere, 1, MPI_INT, MPI_MAX, MPI_COMM_WORLD);
  if (rank == 0 && failedAnywhere && !failedHere) {
    std::fprintf(stderr, "Tests failed on other ranks (their failures are above).\n");
  }
  MPI_Finalize();
  return failedAnywhere;
}
