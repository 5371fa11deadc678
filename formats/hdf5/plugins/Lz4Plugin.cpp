// The lz4 filter as an HDF5 plugin: with HDF5_PLUGIN_PATH naming its folder,
// any program on libhdf5 (h5py, h5dump, ParaView) reads and writes our
// lz4-compressed arrays without this library.

#include <H5PLextern.h>

#include "formats/hdf5/detail/Hdf5.hpp"

extern "C" {

H5PL_type_t H5PLget_plugin_type() {
  return H5PL_TYPE_FILTER;
}

const void* H5PLget_plugin_info() {
  return &Quaril::H5::detail::lz4FilterClass();
}
}
