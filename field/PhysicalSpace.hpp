#pragma once
// Points and vectors of three-dimensional Euclidean space.

namespace Pelorn::PhysicalSpace {

/// A displacement in space: three Cartesian components.
struct tvector {
  double x = 0;
  double y = 0;
  double z = 0;

  friend bool operator==(const tvector&, const tvector&) = default;
  friend tvector operator+(const tvector& a, const tvector& b) noexcept {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
  }
  friend tvector operator-(const tvector& a, const tvector& b) noexcept {
    return {a.x - b.x, a.y - b.y, a.z - b.z};
  }
  friend tvector operator*(const tvector& v, double s) noexcept {
    return {v.x * s, v.y * s, v.z * s};
  }
  friend tvector operator*(double s, const tvector& v) noexcept { return v * s; }
};

/// A location in space: three Cartesian coordinates.
///
/// Besides the affine operations (point + vector, point - point), points add
/// and scale component-wise, so that a centroid is `(a + b + c) * (1.0 / 3)`.
struct point {
  double x = 0;
  double y = 0;
  double z = 0;

  friend bool operator==(const point&, const point&) = default;
  friend point operator+(const point& p, const tvector& v) noexcept {
    return {p.x + v.x, p.y + v.y, p.z + v.z};
  }
  friend point operator-(const point& p, const tvector& v) noexcept {
    return {p.x - v.x, p.y - v.y, p.z - v.z};
  }
  friend tvector operator-(const point& a, const point& b) noexcept {
    return {a.x - b.x, a.y - b.y, a.z - b.z};
  }
  friend point operator+(const point& a, const point& b) noexcept {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
  }
  friend point operator*(const point& p, double s) noexcept { return {p.x * s, p.y * s, p.z * s}; }
  friend point operator*(double s, const point& p) noexcept { return p * s; }
};

}  // namespace Pelorn::PhysicalSpace
