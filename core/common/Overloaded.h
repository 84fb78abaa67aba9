// A visitor made of lambdas, one per type it handles:
//
//   attribute.Visit(Overloaded{[](int& n) { ... }, [](auto& other) { ... }});
//
// A lambda for the exact type wins over a generic one, so a generic lambda
// can stand for "all the others".
#pragma once

namespace VeskCore {

template <class... Lambdas>
struct Overloaded : Lambdas... {
    using Lambdas::operator()...;
};
template <class... Lambdas>
Overloaded(Lambdas...) -> Overloaded<Lambdas...>;

}  // namespace VeskCore
