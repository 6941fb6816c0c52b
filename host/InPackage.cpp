// Package records and their ordering (InPackage.h).
#include "InPackage.h"

#include <algorithm>
#include <functional>
#include <unordered_map>

#include "ZtCore.h"

namespace Zt {

InPackageInit::InPackageInit(std::string name) : _name(std::move(name)) {}

InPackageInit::~InPackageInit() { InPackageManager::getInstance().remove(this); }

const std::string& InPackageInit::getName() const { return _name; }

void InPackageInit::addDependency(InVariableBase* dependency) {
    auto* package = dynamic_cast<InPackageInit*>(dependency);
    if (package && package->getPackageType()) addDependency(*package->getPackageType());
}

void InPackageInit::removeDependency(InVariableBase* dependency) {
    auto* package = dynamic_cast<InPackageInit*>(dependency);
    if (!package || !package->getPackageType()) return;
    const std::type_info* type = package->getPackageType();
    std::erase_if(_dependencies, [type](const std::type_info* t) { return *t == *type; });
}

void InPackageInit::registerPackage(const std::type_info& packageType) {
    _type = &packageType;
    InPackageManager::getInstance().add(this);
}

void InPackageInit::addDependency(const std::type_info& packageType) { _dependencies.push_back(&packageType); }

InPackageManager& InPackageManager::getInstance() {
    // Never destroyed: records of libraries unloaded at exit still unregister themselves.
    static InPackageManager* instance = new InPackageManager;
    return *instance;
}

void InPackageManager::add(InPackageInit* package) {
    if (std::find(_packages.begin(), _packages.end(), package) == _packages.end()) _packages.push_back(package);
}

void InPackageManager::remove(InPackageInit* package) {
    std::erase(_packages, package);
    std::erase(_initialized, package);
}

InPackageInit* InPackageManager::find(const std::type_info& packageType) const {
    for (InPackageInit* p : _packages)
        if (p->getPackageType() && *p->getPackageType() == packageType) return p;
    return nullptr;
}

InPackageInit* InPackageManager::find(const std::string& name) const {
    for (InPackageInit* p : _packages)
        if (p->getName() == name) return p;
    return nullptr;
}

bool InPackageManager::isInitialized(const InPackageInit* package) const {
    return std::find(_initialized.begin(), _initialized.end(), package) != _initialized.end();
}

std::vector<InPackageInit*> InPackageManager::orderForInitialization() const {
    // Depth-first over the dependencies, in registration order among equals.
    enum class Mark { None, Visiting, Done };
    std::unordered_map<const InPackageInit*, Mark> marks;
    std::vector<InPackageInit*> order;
    std::function<void(InPackageInit*)> visit = [&](InPackageInit* p) {
        Mark& mark = marks[p];
        if (mark == Mark::Done) return;
        if (mark == Mark::Visiting)
            throw ExBase("host/InPackage", __LINE__, "Package " + p->getName() + " depends on itself through a cycle");
        mark = Mark::Visiting;
        for (const std::type_info* type : p->getDependencies()) {
            InPackageInit* dependency = find(*type);
            if (!dependency)
                throw ExBase("host/InPackage", __LINE__,
                             "Package " + p->getName() + " depends on a package that is not loaded (" + type->name() + ")");
            visit(dependency);
        }
        marks[p] = Mark::Done;
        order.push_back(p);
    };
    for (InPackageInit* p : _packages) visit(p);
    return order;
}

void InPackageManager::initializeAll() {
    for (InPackageInit* p : orderForInitialization()) {
        if (isInitialized(p)) continue;
        p->preInitialize();
        p->initialize();
        p->setInitialized(true);
        _initialized.push_back(p);
    }
}

void InPackageManager::shutdownAll() {
    while (!_initialized.empty()) {
        InPackageInit* p = _initialized.back();
        _initialized.pop_back();
        p->shutdown();
        p->setInitialized(false);
        p->postShutdown();
    }
}

}  // namespace Zt
