#!/usr/bin/env bash
# Installs the Debian packages the build needs (`install-deps.sh fuzz`: also
# those of the fuzz target; `install-deps.sh interop`: ParaView, headless;
# `install-deps.sh mpi`: OpenMPI and the HDF5 built on it).
# As root it installs what is missing; otherwise it prints the exact command
# and fails.
set -euo pipefail

packages=(
  cmake
  pkg-config
  make
  g++
  libgtest-dev
  libgmock-dev
  libbenchmark-dev
  libhdf5-dev
  libxxhash-dev
  libzstd-dev
  liblz4-dev
  libcli11-dev
  nlohmann-json3-dev
  pybind11-dev
  python3-h5py
  python3-numpy
  python3-pytest
  python3-venv
  python3-xarray
  python3-netcdf4
  python3-dask
  python3-hdf5plugin
)
if [ "${1:-}" = "fuzz" ]; then
  packages+=(clang libclang-rt-14-dev)
fi
if [ "${1:-}" = "interop" ]; then
  packages+=(python3-paraview xvfb)
fi
if [ "${1:-}" = "mpi" ]; then
  packages+=(libopenmpi-dev openmpi-bin libhdf5-openmpi-dev)
fi

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

if [ "$(id -u)" -eq 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq "${missing[@]}"
else
  echo "Missing packages. Install them with:" >&2
  echo "  sudo apt-get install -y ${missing[*]}" >&2
  exit 1
fi
