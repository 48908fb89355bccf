#pragma once

#include <exception>
#include <string>

// What work threw as an E, or "no exception"; any other exception goes on.
template <class E = std::exception, class F>
std::string whatOf(F work) {
  try {
    work();
  } catch (E const& e) {
    return e.what();
  }
  return "no exception";
}
