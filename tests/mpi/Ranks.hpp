#pragma once
// This process's place in MPI_COMM_WORLD, for the MPI tests.

#include <mpi.h>

inline int worldRank() {
  int rank = 0;
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  return rank;
}

inline int worldSize() {
  int size = 1;
  MPI_Comm_size(MPI_COMM_WORLD, &size);
  return size;
}
