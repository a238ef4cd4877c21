# The oldest macOS that the product runs on. 14.0: from there on NSURL parses by RFC 3986, as every URL of the product
# is checked (before, by the older RFC 1808), and the system's C++ library has what is used here (std::to_chars for
# doubles: 13.3).
set(CMAKE_OSX_DEPLOYMENT_TARGET 14.0 CACHE STRING "The oldest macOS that the product runs on")
