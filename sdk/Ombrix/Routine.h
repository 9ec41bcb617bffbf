// The routine adapters: an entry point hands its host arguments and an
// implementation function to Invoke<Impl>, which checks the argument count and
// type codes, converts the arguments to the implementation's parameter types,
// calls it and writes its return value into the host result.
//
// Parameter types an implementation may take, in declaration order:
//   std::string              STRING (type code 9), bytes kept whole
//   double                   NUMBER (5)
//   int32_t / int64_t        NUMBER, truncated toward zero (int32_t keeps the low 32 bits)
//   bool                     BOOLEAN (1), for host routines
//   AutoRefPtr<IDataRef>     DATAREF (13)
//   AutoRefPtr<IJSON>        JSON (a custom code)
//   AutoRefPtr<T>            a module type T derived from IUserDefinedType
// optionally followed by IContext* (the call's context). Return types:
// void, bool, double, std::string, AutoRefPtr<IDataRef or Data>, AutoRefPtr<IJSON>,
// AutoRefPtr<T> of a module type, AutoRefPtr<IVectorGeneric>.
#pragma once

#include <cmath>
#include <exception>
#include <limits>
#include <new>
#include <string>
#include <tuple>
#include <type_traits>

#include "Ombrix/Data.h"
#include "Ombrix/Interfaces.h"

namespace Ombrix {

enum StatusKind : uint32_t { kStatusMissing = 1, kStatusWrongType = 2, kStatusEmptyObject = 4 };

constexpr uint32_t MakeStatus(uint32_t position, uint32_t kind) { return (position << 16) | kind; }
constexpr uint32_t StatusPosition(uint32_t status) { return status >> 16; }
constexpr uint32_t StatusKindOf(uint32_t status) { return status & 0xffffu; }

// NUMBER to integer: toward zero; NaN gives 0 and values beyond the 64-bit
// range saturate, so the conversion is defined for every double.
inline int64_t TruncateToInt64(double value) noexcept {
    if (std::isnan(value)) return 0;
    if (value >= 9223372036854775807.0) return std::numeric_limits<int64_t>::max();
    if (value <= -9223372036854775808.0) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(value);
}
// The low 32 bits of the 64-bit truncation, as a signed value.
inline int32_t TruncateToInt32(double value) noexcept { return static_cast<int32_t>(TruncateToInt64(value)); }

// Per-call argument cursor; the first failing argument decides the status.
struct ArgumentReader {
    uint32_t status = 0;
    int32_t index = -1;
    IContext* context = nullptr;
    void* opaque = nullptr;
    IVariant** arguments = nullptr;
    uint32_t count = 0;

    // Advances to the next argument; null (with the status set) when it is missing.
    IVariant* Next() {
        ++index;
        if (static_cast<uint32_t>(index) >= count) {
            status = MakeStatus(static_cast<uint32_t>(index) + 1, kStatusMissing);
            return nullptr;
        }
        return arguments[index];
    }
    // Sets the status for an argument that did not convert.
    void Reject(const IVariant* argument) {
        uint32_t kind = kStatusWrongType;
        if (argument && IsCustomTypeCode(argument->GetType())) {
            AutoRefPtr<IUserDefinedType> held(argument->GetUserDefinedPtr());
            if (!held) kind = kStatusEmptyObject;
        }
        status = MakeStatus(static_cast<uint32_t>(index) + 1, kind);
    }
};

template <class T>
struct Argument;

template <>
struct Argument<std::string> {
    static bool Convert(const IVariant& v, std::string& out) {
        if (v.GetType() != kTypeString) return false;
        const char* text = v.GetString();
        if (text)
            out.assign(text, v.GetStringSize());
        else
            out.clear();
        return true;
    }
};
template <>
struct Argument<double> {
    static bool Convert(const IVariant& v, double& out) {
        if (v.GetType() != kTypeNumber) return false;
        out = v.GetNumber();
        return true;
    }
};
template <>
struct Argument<int64_t> {
    static bool Convert(const IVariant& v, int64_t& out) {
        if (v.GetType() != kTypeNumber) return false;
        out = TruncateToInt64(v.GetNumber());
        return true;
    }
};
template <>
struct Argument<int32_t> {
    static bool Convert(const IVariant& v, int32_t& out) {
        if (v.GetType() != kTypeNumber) return false;
        out = TruncateToInt32(v.GetNumber());
        return true;
    }
};
template <>
struct Argument<bool> {
    static bool Convert(const IVariant& v, bool& out) {
        if (v.GetType() != kTypeBoolean) return false;
        out = v.GetBoolean();
        return true;
    }
};
template <>
struct Argument<AutoRefPtr<IDataRef>> {
    static bool Convert(const IVariant& v, AutoRefPtr<IDataRef>& out) {
        if (v.GetType() != kTypeDataRef) return false;
        out = v.GetData();
        return true;
    }
};
// JSON and module types: a custom code holding an object of the expected class.
template <class T>
struct Argument<AutoRefPtr<T>> {
    static_assert(std::is_base_of_v<IUserDefinedType, T>, "unsupported parameter type");
    static bool Convert(const IVariant& v, AutoRefPtr<T>& out) {
        if (!IsCustomTypeCode(v.GetType())) return false;
        AutoRefPtr<IUserDefinedType> held(v.GetUserDefinedPtr());
        out = held.template DynamicCast<T>();
        return static_cast<bool>(out);
    }
};

template <class T>
void ReadArgument(ArgumentReader& reader, T& out) {
    if (reader.status) return;
    IVariant* argument = reader.Next();
    if (reader.status) return;
    if (!argument || !Argument<T>::Convert(*argument, out)) reader.Reject(argument);
}

template <class R>
struct Result;

template <>
struct Result<std::string> {
    static void Assign(IVariant& r, const std::string& v) { r.AssignString(v.data(), v.size()); }
    static void AssignEmpty(IVariant& r) { r.AssignString(nullptr, 0); }
};
template <>
struct Result<double> {
    static void Assign(IVariant& r, double v) { r.AssignNumber(v); }
    static void AssignEmpty(IVariant& r) { r.AssignNumber(0); }
};
template <>
struct Result<bool> {
    static void Assign(IVariant& r, bool v) { r.AssignBoolean(v); }
    static void AssignEmpty(IVariant& r) { r.AssignBoolean(false); }
};
template <>
struct Result<AutoRefPtr<IVectorGeneric>> {
    static void Assign(IVariant& r, AutoRefPtr<IVectorGeneric> v) { r.AssignVector(std::move(v)); }
    static void AssignEmpty(IVariant& r) { r.AssignVector(nullptr); }
};
template <class T>
struct Result<AutoRefPtr<T>> {
    static void Assign(IVariant& r, AutoRefPtr<T> v) {
        if constexpr (std::is_base_of_v<IDataRef, T>)
            r.AssignData(AutoRefPtr<IDataRef>(std::move(v)));
        else
            r.SetUserDefined(AutoRefPtr<IUserDefinedType>(std::move(v)));
    }
    static void AssignEmpty(IVariant& r) {
        if constexpr (std::is_base_of_v<IDataRef, T>)
            r.AssignData(nullptr);
        else
            r.SetUserDefined(nullptr);
    }
};

template <class... P>
struct LastIsContext : std::false_type {};
template <class P0, class... P>
struct LastIsContext<P0, P...>
    : std::is_same<std::tuple_element_t<sizeof...(P), std::tuple<P0, P...>>, IContext*> {};

template <class F>
struct Signature;
template <class R, class... P>
struct Signature<R (*)(P...)> {
    using Return = R;
    using Parameters = std::tuple<P...>;
    static constexpr bool kTakesContext = LastIsContext<P...>::value;
};

template <class Tuple, size_t... I>
auto DropLast(std::index_sequence<I...>) -> std::tuple<std::decay_t<std::tuple_element_t<I, Tuple>>...>;

// Host-facing error report used by the adapter's safety net.
inline void ReportUncaught(IContext* context, const char* moduleNamespace, const char* errorId,
                           const char* message) noexcept {
    if (!context) return;
    try {
        context->TriggerErrorHandler(kSeverityError, moduleNamespace, errorId, message);
    } catch (...) {
    }
}

// Wiping policies for the converted STRING arguments (see ArgumentWiper).
struct NoWipe {
    static void Wipe(void*, size_t) noexcept {}
};

// Wipes the whole buffer of every converted STRING argument when a call ends,
// so no copy of a key or password outlives it: a string moved into the
// implementation leaves its short-string bytes behind.
template <class Wiper, class Tuple>
class ArgumentWiper {
public:
    explicit ArgumentWiper(Tuple& values) noexcept : values_(values) {}
    ArgumentWiper(const ArgumentWiper&) = delete;
    ArgumentWiper& operator=(const ArgumentWiper&) = delete;
    ~ArgumentWiper() {
        if constexpr (!std::is_same_v<Wiper, NoWipe>) std::apply([](auto&... value) { (WipeOne(value), ...); }, values_);
    }

private:
    template <class T>
    static void WipeOne(T& value) noexcept {
        if constexpr (std::is_same_v<T, std::string>) {
            value.resize(value.capacity());  // within capacity: no reallocation
            Wiper::Wipe(value.data(), value.size());
        }
    }

    Tuple& values_;
};

// Runs one routine call. ModuleNamespace names the source of the safety net's
// reports for exceptions that an implementation let through; Wiper wipes the
// converted STRING arguments afterwards.
template <auto Impl, const char* ModuleNamespace, class Wiper = NoWipe>
uint32_t Invoke(uint32_t argumentCount, IVariant** arguments, IVariant* result, void* opaque,
                IContext* context) noexcept {
    using Sig = Signature<decltype(Impl)>;
    using R = typename Sig::Return;
    using Params = typename Sig::Parameters;
    constexpr size_t kCount = std::tuple_size_v<Params> - (Sig::kTakesContext ? 1 : 0);
    using Converted = decltype(DropLast<Params>(std::make_index_sequence<kCount>{}));

    auto assignEmpty = [&] {
        if constexpr (!std::is_void_v<R>) {
            if (result) Result<R>::AssignEmpty(*result);
        }
    };
    try {
        ArgumentReader reader{0, -1, context, opaque, arguments, argumentCount};
        Converted values;
        const ArgumentWiper<Wiper, Converted> wiper(values);
        std::apply([&](auto&... value) { (ReadArgument(reader, value), ...); }, values);
        if (reader.status) {
            assignEmpty();
            return reader.status;
        }
        auto call = [&]() -> R {
            if constexpr (Sig::kTakesContext)
                return std::apply([&](auto&... value) { return Impl(std::move(value)..., context); }, values);
            else
                return std::apply([&](auto&... value) { return Impl(std::move(value)...); }, values);
        };
        if constexpr (std::is_void_v<R>) {
            call();
        } else {
            R value = call();
            if (result) Result<R>::Assign(*result, std::move(value));
        }
    } catch (const std::bad_alloc&) {
        ReportUncaught(context, ModuleNamespace, "Error.System.Memory", "Out of memory");
        assignEmpty();
    } catch (const std::exception& e) {
        ReportUncaught(context, ModuleNamespace, "Error.Ombrix.FunctionError", e.what());
        assignEmpty();
    } catch (...) {
        ReportUncaught(context, ModuleNamespace, "Error.Ombrix.FunctionError", "Unknown error");
        assignEmpty();
    }
    return 0;
}

}  // namespace Ombrix
