// The directory in a naming service.
#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "middleware/directory.h"
#include "middleware/orb/naming.h"

namespace portsvc {
namespace {

constexpr const char* top_context = "PortService";
constexpr const char* no_realm = "-";

CosNaming::Name name_of(std::initializer_list<std::string> path) {
  CosNaming::Name name;
  name.length(static_cast<CORBA::ULong>(path.size()));
  CORBA::ULong i = 0;
  for (const std::string& part : path) name[i++].id = CORBA::string_dup(part.c_str());
  return name;
}

std::string realm_context(const std::string& realm) { return realm.empty() ? no_realm : realm; }

class NamingDirectory final : public Directory {
 public:
  /// `root` is taken for a naming context unasked: the service may not be there yet.
  NamingDirectory(const orb::Broker& broker, const std::string& reference)
      : root_(CosNaming::NamingContext::_unchecked_narrow(broker.from_text(reference))) {}

  CORBA::Object_var resolve(const std::string& server, const std::string& realm) override {
    try {
      const orb::CallTimeout limit;
      for (const std::string& context : realms_to_ask(realm)) {
        for (const char* role : {role_main, role_sub}) {
          CORBA::Object_var found = lookup({top_context, context, role, server});
          if (!CORBA::is_nil(found.in())) return found;
        }
      }
    } catch (const CORBA::Exception&) {
      // The naming service does not answer: the server cannot be found now.
    }
    return CORBA::Object::_nil();
  }

  std::vector<std::string> servers(const std::string& role, const std::string& realm) override {
    std::vector<std::string> names;
    try {
      const orb::CallTimeout limit;
      for (const std::string& context : realms_to_ask(realm)) {
        const CORBA::Object_var object = lookup({top_context, context, role});
        for (std::string& name : entries(object)) names.push_back(std::move(name));
      }
    } catch (const CORBA::Exception&) {
      return {};
    }
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
  }

  void bind(const std::string& server, const std::string& realm, const std::string& role,
            CORBA::Object_ptr reference) override {
    const std::string context = realm_context(realm);
    try {
      const orb::CallTimeout limit;
      make_context({top_context});
      make_context({top_context, context});
      make_context({top_context, context, role});
      root_->rebind(name_of({top_context, context, role, server}), reference);
    } catch (const CORBA::Exception& e) {
      throw orb::Error(
          fmt::format("the naming service did not enter '{}': {}", server, orb::describe(e)));
    }
  }

  void unbind(const std::string& server, const std::string& realm, const std::string& role,
              CORBA::Object_ptr reference) override {
    try {
      const orb::CallTimeout limit;
      const std::string context = realm_context(realm);
      const CORBA::Object_var entered = lookup({top_context, context, role, server});
      if (CORBA::is_nil(entered.in()) || !entered->_is_equivalent(reference)) return;
      root_->unbind(name_of({top_context, context, role, server}));
    } catch (const CORBA::Exception&) {
      // The entry stays behind; the next start of this server replaces it.
    }
  }

 private:
  CORBA::Object_var lookup(std::initializer_list<std::string> path) {
    try {
      return root_->resolve(name_of(path));
    } catch (const CosNaming::NamingContext::NotFound&) {
      return CORBA::Object::_nil();
    }
  }

  void make_context(std::initializer_list<std::string> path) {
    try {
      const CosNaming::NamingContext_var made = root_->bind_new_context(name_of(path));
    } catch (const CosNaming::NamingContext::AlreadyBound&) {
      // Another server was here first.
    }
  }

  /// The names in the context `object` is a reference to; none when it is nil.
  static std::vector<std::string> entries(CORBA::Object_ptr object) {
    std::vector<std::string> names;
    const CosNaming::NamingContext_var context = CosNaming::NamingContext::_narrow(object);
    if (CORBA::is_nil(context.in())) return names;
    constexpr CORBA::ULong batch = 1000;
    CosNaming::BindingList_var list;
    CosNaming::BindingIterator_var rest;
    context->list(batch, list, rest);
    for (bool more = true; more;) {
      for (CORBA::ULong i = 0; i < list->length(); ++i) {
        const CosNaming::Name& name = list[i].binding_name;
        if (name.length() > 0) names.emplace_back(name[0].id.in());
      }
      more = !CORBA::is_nil(rest.in()) && rest->next_n(batch, list);
    }
    if (!CORBA::is_nil(rest.in())) rest->destroy();
    return names;
  }

  std::vector<std::string> realms_to_ask(const std::string& realm) {
    if (!realm.empty()) return {realm, no_realm};
    const CORBA::Object_var top = lookup({top_context});
    std::vector<std::string> realms = entries(top);
    std::sort(realms.begin(), realms.end());
    return realms;
  }

  const CosNaming::NamingContext_var root_;
};

}  // namespace

std::shared_ptr<Directory> open_naming_directory(const orb::Broker& broker,
                                                 const std::string& reference) {
  return std::make_shared<NamingDirectory>(broker, reference);
}

}  // namespace portsvc
