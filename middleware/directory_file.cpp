// The directory in a file.
#include <fmt/format.h>

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <mutex>
#include <utility>

#include "middleware/directory.h"
#include "platform/file_stamp.h"

namespace portsvc {
namespace {

class FileDirectory final : public Directory {
 public:
  using Complain = std::function<void(const std::string&)>;

  FileDirectory(const orb::Broker& broker, std::string path, Complain complain)
      : broker_(broker),
        path_(std::move(path)),
        complain_(std::move(complain)),
        stamp_(File_Stamp::of(path_)),
        entries_(read()) {}

  CORBA::Object_var resolve(const std::string& server, const std::string& realm) override {
    const std::lock_guard<std::mutex> guard(lock_);
    refresh();
    for (const Entry& entry : entries_) {
      if (entry.name == server && entry.in(realm)) return entry.reference;
    }
    return CORBA::Object::_nil();
  }

  std::vector<std::string> servers(const std::string& role, const std::string& realm) override {
    const std::lock_guard<std::mutex> guard(lock_);
    refresh();
    std::vector<std::string> names;
    for (const Entry& entry : entries_) {
      if (entry.role == role && entry.in(realm)) names.push_back(entry.name);
    }
    return names;
  }

  void read_again() override {
    const std::lock_guard<std::mutex> guard(lock_);
    stamp_ = {};
    refresh();
  }

  bool takes_entries() const override { return false; }
  void bind(const std::string&, const std::string&, const std::string&,
            CORBA::Object_ptr) override {}
  void unbind(const std::string&, const std::string&, const std::string&,
              CORBA::Object_ptr) override {}

 private:
  struct Entry {
    std::string name;
    std::string role;
    std::string realm;
    CORBA::Object_var reference;

    bool in(const std::string& asked) const {
      return asked.empty() || realm.empty() || realm == asked;
    }
  };

  [[noreturn]] void fail(const std::string& server, const std::string& reason) const {
    throw orb::Error(fmt::format("directory {}: server '{}': {}", path_, server, reason));
  }

  Entry entry_of(const std::string& name, const boost::property_tree::ptree& section) const {
    Entry entry;
    entry.name = name;
    std::string reference;
    for (const auto& [key, value] : section) {
      if (key == "role") {
        entry.role = value.data();
      } else if (key == "reference") {
        reference = value.data();
      } else if (key == "realm") {
        entry.realm = value.data();
      } else {
        fail(name, fmt::format("unknown key '{}'", key));
      }
    }
    if (section.empty()) fail(name, "a key outside of any section, or an empty section");
    if (entry.role != role_main && entry.role != role_sub) {
      fail(name, fmt::format("role is '{}', wanted: {} or {}", entry.role, role_main, role_sub));
    }
    if (reference.empty()) fail(name, "no reference");
    // A corbaname would have to be looked up elsewhere before the entry could be read.
    if (reference.rfind("corbaloc:", 0) != 0 && reference.rfind("IOR:", 0) != 0) {
      fail(name, fmt::format("the reference '{}' is neither a corbaloc nor an IOR", reference));
    }
    try {
      entry.reference = broker_.from_text(reference);
    } catch (const orb::Error& e) {
      fail(name, e.what());
    }
    return entry;
  }

  std::vector<Entry> read() const {
    boost::property_tree::ptree tree;
    try {
      boost::property_tree::read_ini(path_, tree);
    } catch (const boost::property_tree::ini_parser_error& e) {
      throw orb::Error(
          e.line() == 0 ? fmt::format("directory {}: {}", path_, e.message())
                        : fmt::format("directory {}: line {}: {}", path_, e.line(), e.message()));
    }
    std::vector<Entry> entries;
    for (const auto& [name, section] : tree) entries.push_back(entry_of(name, section));
    return entries;
  }

  /// Reads the file again when it is not the one that was read last. Under the lock.
  void refresh() {
    const File_Stamp now = File_Stamp::of(path_);
    if (now == stamp_) return;
    stamp_ = now;
    try {
      entries_ = read();
    } catch (const orb::Error& error) {
      // The servers known so far stay known.
      if (complain_) complain_(error.what());
    }
  }

  const orb::Broker& broker_;
  const std::string path_;
  const Complain complain_;
  std::mutex lock_;  ///< guards the two below; the file is read under it, nothing is called
  File_Stamp stamp_;
  std::vector<Entry> entries_;
};

}  // namespace

std::shared_ptr<Directory> open_file_directory(const orb::Broker& broker, const std::string& path,
                                               std::function<void(const std::string&)> complain) {
  return std::make_shared<FileDirectory>(broker, path, std::move(complain));
}

}  // namespace portsvc
