// The host's package framework: every library announces itself by a static package
// record, an InPackageInit, built while the library loads. The record names the package, the
// packages that it depends on (by their types, InInit<Tag>::getType), and what to do at
// initialisation and shut-down. InPackageManager keeps the records of all loaded libraries and
// runs them in dependency order.
#pragma once

#include <string>
#include <typeinfo>
#include <vector>

namespace Zt {

// What the package manager orders. A package record is one; the framework's lazily built static
// variables would be others, and a dependency may be given as either.
class InVariableBase {
public:
    virtual ~InVariableBase() = default;
};

class InPackageInit : public InVariableBase {
public:
    explicit InPackageInit(std::string name);
    // Unregisters the record: the library is being unloaded.
    ~InPackageInit() override;

    // The virtual operations in the order of their slots, which plug-ins call by slot.
    virtual const std::string& getName() const;
    virtual void addDependency(InVariableBase* dependency);
    virtual void removeDependency(InVariableBase* dependency);
    virtual void preInitialize() {}
    virtual void postShutdown() {}
    virtual void initialize() = 0;
    virtual void shutdown() = 0;
    virtual void setInitialized(bool initialized) = 0;

    // The package's own type, given to registerPackage; null until then.
    const std::type_info* getPackageType() const { return _type; }
    const std::vector<const std::type_info*>& getDependencies() const { return _dependencies; }

protected:
    // Makes the record known to the package manager under `packageType`.
    void registerPackage(const std::type_info& packageType);
    // A dependency by type: the package need not be loaded yet, only before initialisation.
    void addDependency(const std::type_info& packageType);

private:
    std::string _name;
    const std::type_info* _type = nullptr;
    std::vector<const std::type_info*> _dependencies;
};

// The record of the package whose tag type is Tag. A package with work to do at initialisation
// specialises it (deriving from InPackageInit); the generic one only orders.
template <class Tag>
class InInit : public InPackageInit {
public:
    explicit InInit(std::string name) : InPackageInit(std::move(name)) { registerPackage(getType()); }
    static const std::type_info& getType() { return typeid(Tag); }
    void initialize() override {}
    void shutdown() override {}
    void setInitialized(bool initialized) override { _initialized = initialized; }
    bool isInitialized() const { return _initialized; }

private:
    bool _initialized = false;
};

// All package records of the process, in the order of registration.
class InPackageManager {
public:
    static InPackageManager& getInstance();

    void add(InPackageInit* package);
    void remove(InPackageInit* package);
    InPackageInit* find(const std::type_info& packageType) const;
    InPackageInit* find(const std::string& name) const;
    const std::vector<InPackageInit*>& getPackages() const { return _packages; }
    bool isInitialized(const InPackageInit* package) const;

    // Initialises every package not yet initialised, each after all of its dependencies. Throws
    // ExBase, before initialising anything, when a dependency is not loaded or the
    // dependencies form a cycle.
    void initializeAll();
    // Shuts the initialised packages down in the reverse order of their initialisation.
    void shutdownAll();

private:
    std::vector<InPackageInit*> orderForInitialization() const;

    std::vector<InPackageInit*> _packages;
    std::vector<InPackageInit*> _initialized;  // in the order of initialisation
};

}  // namespace Zt
