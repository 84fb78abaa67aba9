#include "slb/Class.h"

#include <iostream>

namespace SLB::Private {

ClassRegistrar::ClassRegistrar(Manager* manager, ClassInfo* cls, std::string_view name,
                               InstanceFactory* factory)
    : manager_(manager), class_(cls) {
    class_->setName(name);
    class_->setInstanceFactory(factory);
}

void ClassRegistrar::comment(std::string_view text) {
    if (last_)
        last_->setInfo(text);
    else
        class_->setInfo(text);
}

void ClassRegistrar::param(std::string_view text) {
    const std::size_t index = paramIndex_++;
    auto* callable = dynamic_cast<FuncCall*>(last_);
    if (!callable) {
        std::cerr << "SLB_Warning: Can not set param info to a non-funcCall object "
                  << "(" << index << ", " << text << ")" << std::endl;
    } else if (!callable->setArgComment(index, text)) {
        std::cerr << "SLB_Warning: " << callable->getInfo()
                  << " to many parameters (total args=" << callable->getNumArguments() << ")"
                  << "(" << index << ", " << text << ")" << std::endl;
    }
}

void ClassRegistrar::setMember(std::string_view name, Object* member) {
    class_->set(name, member);
    last_ = member;
    paramIndex_ = 0;
}

void ClassRegistrar::setConstructor(FuncCall* constructor) {
    class_->setConstructor(constructor);
    last_ = constructor;
    paramIndex_ = 0;
}

void ClassRegistrar::inherits(const TypeInfoWrapper& base, ClassInfo::BaseConversion toBase) {
    class_->inheritsFrom(manager_->getOrCreateClass(base), toBase);
}

}  // namespace SLB::Private
