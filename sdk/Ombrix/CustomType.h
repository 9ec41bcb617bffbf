// Module-side base of script-level custom values, and CustomType<T>, which
// binds a class to its script type name, its factory and its cached type id.
#pragma once

#include <new>
#include <string>

#include "Ombrix/Interfaces.h"

namespace Ombrix {

class UserDefinedType : public UseCounted<IUserDefinedType> {
public:
    UserDefinedType(uint32_t typeId, std::string typeName) : typeId_(typeId), typeName_(std::move(typeName)) {}

    const char* GetName() const override { return typeName_.c_str(); }
    uint32_t GetType() const override { return typeId_; }
    // Values of module types never compare equal or ordered.
    bool Compare(const IUserDefinedType*, Comparison) const override { return false; }
    bool Interface_Deserialize(const IJSON* json, IContext*) override { return Interface_Deserialize(json); }
    bool Interface_Deserialize(const IJSON*) override { return false; }
    AutoRefPtr<IJSON> Interface_Serialize(IContext*) const override { return Interface_Serialize(); }
    AutoRefPtr<IJSON> Interface_Serialize() const override { return nullptr; }
    bool FromBinaryData(const void*, uint64_t, uint32_t) override { return false; }
    uint64_t ToBinaryData(void**, uint32_t) const override { return 0; }

private:
    uint32_t typeId_;
    std::string typeName_;
};

// T derives from CustomType<T>, names itself with `static constexpr const char*
// kTypeName`, is constructible from (typeId, context), and its copy
// constructor gives the clone semantics.
template <class T>
class CustomType : public UserDefinedType {
public:
    CustomType(uint32_t typeId, IContext* context) : UserDefinedType(typeId, T::kTypeName), context_(context) {}

    AutoRefPtr<IUserDefinedType> Clone() const override {
        return AutoRefPtr<IUserDefinedType>(new (std::nothrow) T(static_cast<const T&>(*this)));
    }

    // The context the value was created in; valid only during that call.
    IContext* CreationContext() const noexcept { return context_; }

    // Host type id of the script type, looked up once per process.
    static uint32_t CachedTypeId(IContext* context) {
        static const uint32_t id = context ? context->FindType(T::kTypeName) : 0;
        return id;
    }

    // A new empty value of this type, or null when memory is exhausted.
    static AutoRefPtr<T> New(IContext* context) {
        return AutoRefPtr<T>(new (std::nothrow) T(CachedTypeId(context), context));
    }

    // The TYPE factory the host calls.
    static IUserDefinedType* Factory(uint32_t typeId, IContext* context) noexcept {
        return new (std::nothrow) T(typeId, context);
    }

private:
    IContext* context_;
};

}  // namespace Ombrix
