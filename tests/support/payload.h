// Payloads from texts and back.
#pragma once

#include <algorithm>
#include <boost/make_shared.hpp>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "middleware/orb/orb.h"
#include "ports/port_impl.h"

namespace portsvc {

using Texts = std::vector<std::string>;

inline vrBuffer buffer(std::string_view text) {
  return vrBuffer(static_cast<unsigned int>(text.size()), text.data());
}

inline std::string text(const vrBuffer& data) {
  return std::string(reinterpret_cast<const char*>(data.data()), data.size());
}

inline Event_ptr event(std::string_view text, unsigned int handle = 0) {
  return boost::make_shared<vrPort_Buffer>(handle, buffer(text));
}

inline Varo::DATA_BUFFER wire(std::string_view text) {
  Varo::DATA_BUFFER data;
  data.length(static_cast<CORBA::ULong>(text.size()));
  if (!text.empty()) std::memcpy(data.get_buffer(), text.data(), text.size());
  return data;
}

inline Varo::DATA_BUFFER_SEQ wires(const Texts& texts) {
  Varo::DATA_BUFFER_SEQ list;
  list.length(static_cast<CORBA::ULong>(texts.size()));
  for (CORBA::ULong i = 0; i < list.length(); ++i) list[i] = wire(texts[i]);
  return list;
}

inline Varo::PORT_HANDLE_SET handle_set(const std::vector<unsigned int>& handles) {
  Varo::PORT_HANDLE_SET set;
  set.length(static_cast<CORBA::ULong>(handles.size()));
  std::copy(handles.begin(), handles.end(), set.get_buffer());
  return set;
}

inline std::string text(const Varo::DATA_BUFFER& data) {
  return std::string(reinterpret_cast<const char*>(data.get_buffer()), data.length());
}

inline std::string text(const char* string) { return string; }

/// Of a list of payloads or of strings.
template <class List>
Texts texts(const List& list) {
  Texts all;
  for (CORBA::ULong i = 0; i < list.length(); ++i) all.push_back(text(list[i]));
  return all;
}

}  // namespace portsvc
