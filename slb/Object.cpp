#include "slb/Object.h"

namespace SLB {

Object::~Object() = default;

void Object::setInfo(std::string_view text) {
    info_ = toString(text);
}

void Object::unref() {
    if (refCount_ <= 1)
        delete this;
    else
        --refCount_;
}

}  // namespace SLB
