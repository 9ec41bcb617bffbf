// Argument values for the generic routine target, built from the fuzz input:
// values of a named type (or of a type the input picks), from input bytes,
// a dictionary of meaningful names, test fixtures and results of earlier
// calls of the same input.
#pragma once

#include <string>
#include <vector>

#include "FuzzSupport.h"

namespace Fuzz {

class ArgumentMaker {
public:
    explicit ArgumentMaker(FuzzedDataProvider& input) : input_(input) {}

    // A value for a parameter of the type name. proper is set when the value
    // is of that type and holds something (an unset object is not proper).
    AutoRefPtr<IVariant> Make(const std::string& type, bool& proper);
    // A type name for a wrongly typed argument.
    std::string AnyType();
    // Keeps a result (and the elements of a VECTOR) for later calls.
    void Keep(const AutoRefPtr<Ombrix::Host::Variant>& result);

private:
    std::string Text();
    std::string Bytes();
    double Number();
    AutoRefPtr<IVariant> Json();
    AutoRefPtr<IVariant> Object(const std::string& type, bool& proper);
    AutoRefPtr<IVariant> Earlier(uint32_t code);

    FuzzedDataProvider& input_;
    std::vector<AutoRefPtr<IVariant>> kept_;
};

}  // namespace Fuzz
