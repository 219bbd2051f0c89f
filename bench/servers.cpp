#include "bench/servers.h"

#include <fmt/format.h>

#include <filesystem>
#include <stdexcept>
#include <utility>

namespace portsvc::bench {
namespace {

constexpr const char* any_endpoint = "giop:tcp:127.0.0.1:0";

std::vector<std::string> with_ior_file(std::vector<std::string> command, const std::string& file) {
  command.insert(command.end(), {"--ior-file", file});
  return command;
}

std::vector<std::string> server_command(const Bench& bench, const std::string& role,
                                        const std::string& name) {
  return {bench.port_server, role,         "--name",      name,
          "--endpoint",      any_endpoint, "--state-dir", bench.folder.path(name + ".state")};
}

CORBA::ULong connect(Port_Factory_ptr server, const std::string& port, CORBA::ULong mode,
                     CORBA::ULong access) {
  CORBA::ULong handle = 0;
  CORBA::ULong owner = 0;
  require_ok(server->connect_port(port.c_str(), handle, mode, access, owner));
  return handle;
}

}  // namespace

Server::Server(const Bench& bench, const std::string& name, std::vector<std::string> command)
    : ior_file_(bench.folder.path(name + ".ior")),
      process_(with_ior_file(std::move(command), ior_file_), bench.folder.path(name)) {
  wait_until(
      [&] {
        require_alive(process_);
        return !read_all(ior_file_).empty();
      },
      std::chrono::seconds(60), name + " starts");
  const CORBA::Object_var object = bench.broker.from_text(reference());
  reference_ = Varo::DT_PORT_SVC::Port_Factory::_narrow(object.in());
  if (CORBA::is_nil(reference_.in())) throw std::runtime_error(name + " is no port service");
}

std::string Server::reference() const {
  std::string text = read_all(ior_file_);
  text.erase(text.find_last_not_of('\n') + 1);
  return text;
}

std::vector<std::string> main_server(const Bench& bench, const std::string& name,
                                     const std::string& waits) {
  std::vector<std::string> command = server_command(bench, "main", name);
  if (!waits.empty()) command.insert(command.end(), {"--waits", waits});
  return command;
}

std::vector<std::string> sub_server(const Bench& bench, const std::string& name,
                                    const std::string& main, const std::string& directory) {
  std::vector<std::string> command = server_command(bench, "sub", name);
  command.insert(command.end(), {"--main", main, "--directory", directory});
  return command;
}

std::vector<std::string> empty_server() { return {own_path(), "empty-server"}; }

std::vector<std::string> waking_server() { return {own_path(), "waking-server"}; }

// The link itself would name the shell that starts the process.
std::string own_path() { return std::filesystem::read_symlink("/proc/self/exe"); }

CORBA::ULong connect_client(Port_Factory_ptr server, const std::string& port, CORBA::ULong access) {
  return connect(server, port, CONNECT_CLIENT, access);
}

CORBA::ULong connect_owner(Port_Factory_ptr server, const std::string& port, CORBA::ULong access) {
  return connect(server, port, CONNECT_OWNER, access);
}

CORBA::ULong own_and_admit_always(Port_Factory_ptr server, const std::string& port) {
  const CORBA::ULong id = connect_owner(server, port, ACCESS_SELECT);
  // A selection that is refused for its second handle leaves the first port marked as watched.
  Varo::PORT_HANDLE_SET handles;
  handles.length(2);
  handles[0] = id;
  handles[1] = any_handle;
  CORBA::ULong ready = 0;
  if (server->select_event_port(handles, ready, 1) != result::unknown_handle) {
    throw std::runtime_error("the selection was not refused");
  }
  return id;
}

}  // namespace portsvc::bench
