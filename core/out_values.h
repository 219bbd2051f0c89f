// Fresh values for out arguments.
#pragma once

#include <cerrno>
#include <new>
#include <string>
#include <utility>

#include "middleware/orb/orb.h"

namespace portsvc {

/// The answer of an operation that ran out of memory on the way; errno becomes ENOMEM.
inline unsigned int no_memory(unsigned int code) {
  errno = ENOMEM;
  return code;
}

/// Gives `out` a new, empty T and answers it; nullptr, with errno ENOMEM, when it cannot be
/// allocated.
template <class T, class Out>
T* fresh(Out& out) {
  T* const value = new (std::nothrow) T;
  out = value;
  if (!value) errno = ENOMEM;
  return value;
}

/// Sets a sequence's length; false, with errno ENOMEM, when it cannot be allocated.
template <class Sequence>
bool set_length(Sequence& sequence, std::size_t length) {
  try {
    sequence.length(static_cast<unsigned int>(length));
    return true;
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return false;
  }
}

/// Fills a string list from a range of texts convertible to std::string_view.
template <class List, class Texts>
bool fill(List& list, const Texts& texts) {
  if (!set_length(list, texts.size())) return false;
  unsigned int i = 0;
  for (const auto& text : texts) list[i++] = CORBA::string_dup(std::string(text).c_str());
  return true;
}

}  // namespace portsvc
