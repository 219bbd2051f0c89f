#include "bench/servers.h"

#include <fmt/format.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "tests/support/threads.h"

namespace portsvc::bench {
namespace {

CORBA::ULong connect(Port_Factory_ptr server, const std::string& port, CORBA::ULong mode,
                     CORBA::ULong access) {
  CORBA::ULong handle = 0;
  CORBA::ULong owner = 0;
  require_ok(server->connect_port(port.c_str(), handle, mode, access, owner));
  return handle;
}

}  // namespace

void await(const Process& process, const std::function<bool()>& done, std::chrono::seconds patience,
           const std::string& what) {
  const bool in_time = eventually([&] { return !process.running() || done(); }, patience);
  if (!process.running()) {
    const std::string text = process.out() + process.err();
    throw std::runtime_error(
        fmt::format("{}: a process ended: {}", what,
                    text.substr(text.size() - std::min<std::size_t>(text.size(), 500))));
  }
  if (!in_time) {
    throw std::runtime_error(fmt::format("{}: not within {} s", what, patience.count()));
  }
}

Server::Server(const Bench& bench, const std::string& name, const Words& command)
    : ior_file_(bench.folder.path(name + ".ior")), process_(command, bench.folder.path(name)) {
  await(
      process_, [&] { return !read_all(ior_file_).empty(); }, std::chrono::seconds(60),
      name + " starts");
  const CORBA::Object_var object = bench.broker.from_text(reference());
  reference_ = Varo::DT_PORT_SVC::Port_Factory::_narrow(object.in());
  if (CORBA::is_nil(reference_.in())) throw std::runtime_error(name + " is no port service");
}

std::string Server::reference() const {
  std::string text = read_all(ior_file_);
  text.erase(text.find_last_not_of('\n') + 1);
  return text;
}

Words main_server(const Bench& bench, const std::string& name) {
  return Words{bench.port_server} + server_words("main", name, 0, bench.folder.path());
}

Words sub_server(const Bench& bench, const std::string& name, const std::string& main,
                 const std::string& directory) {
  return Words{bench.port_server} + server_words("sub", name, 0, bench.folder.path()) +
         Words{"--main", main, "--directory", directory};
}

Words servant_server(const Bench& bench, const char* servant, const std::string& name) {
  return {own_path(), servant, "--ior-file", bench.folder.path(name + ".ior")};
}

std::string own_path() { return std::filesystem::read_symlink("/proc/self/exe"); }

void enter(const std::string& file, const std::string& server, const char* role,
           const std::string& reference) {
  std::ofstream(file, std::ios::app) << directory_entry(server, role, reference);
}

CORBA::ULong connect_client(Port_Factory_ptr server, const std::string& port) {
  return connect(server, port, CONNECT_CLIENT, ACCESS_WAIT);
}

CORBA::ULong connect_owner(Port_Factory_ptr server, const std::string& port, CORBA::ULong access) {
  return connect(server, port, CONNECT_OWNER, access);
}

}  // namespace portsvc::bench
