#include "Ombrix/Json.h"

namespace Ombrix::JSON {

AutoRefPtr<JSONWrapper> JSONWrapper::Parse(std::string_view text) {
    Document value = Document::parse(text, nullptr, /*allow_exceptions=*/false);
    if (value.is_discarded()) return nullptr;
    return Make(std::move(value));
}

Document JSONWrapper::ValueOf(const IJSON& json) {
    if (auto* ours = dynamic_cast<const JSONWrapper*>(&json)) return ours->value_;
    Document value = Document::parse(json.ToJSONText(), nullptr, false);
    return value.is_discarded() ? Document() : value;
}

bool JSONWrapper::Compare(const IUserDefinedType* other, Comparison comparison) const {
    auto* json = dynamic_cast<const IJSON*>(other);
    if (!json) return false;
    // Member order is kept for writing, but plays no part in comparing.
    const nlohmann::json ours(value_), theirs(ValueOf(*json));
    return comparison == Comparison::Equal ? ours == theirs : ours < theirs;
}

bool JSONWrapper::Interface_Deserialize(const IJSON* json) {
    if (!json) return false;
    value_ = ValueOf(*json);
    return true;
}

IJSON::Kind JSONWrapper::GetKind() const {
    switch (value_.type()) {
        case Document::value_t::boolean: return Kind::Boolean;
        case Document::value_t::number_integer:
        case Document::value_t::number_unsigned:
        case Document::value_t::number_float: return Kind::Number;
        case Document::value_t::string: return Kind::String;
        case Document::value_t::array: return Kind::Array;
        case Document::value_t::object: return Kind::Object;
        default: return Kind::Null;
    }
}

const Document* JSONWrapper::Find(const char* key) const {
    if (!key || !value_.is_object()) return nullptr;
    auto it = value_.find(key);
    return it == value_.end() ? nullptr : &*it;
}

bool JSONWrapper::HasMember(const char* key) const { return Find(key) != nullptr; }

AutoRefPtr<IJSON> JSONWrapper::GetMember(const char* key) const {
    const Document* member = Find(key);
    return member ? AutoRefPtr<IJSON>(new JSONWrapper(*member)) : nullptr;
}

bool JSONWrapper::GetMemberString(const char* key, std::string& out) const {
    const Document* member = Find(key);
    if (!member || !member->is_string()) return false;
    out = member->get_ref<const std::string&>();
    return true;
}

bool JSONWrapper::GetMemberBoolean(const char* key, bool& out) const {
    const Document* member = Find(key);
    if (!member || !member->is_boolean()) return false;
    out = member->get<bool>();
    return true;
}

bool JSONWrapper::GetMemberNumber(const char* key, double& out) const {
    const Document* member = Find(key);
    if (!member || !member->is_number()) return false;
    out = member->get<double>();
    return true;
}

template <class T>
bool JSONWrapper::Set(const char* key, T&& value) {
    if (!key || !value_.is_object()) return false;
    value_[key] = std::forward<T>(value);
    return true;
}

bool JSONWrapper::SetMember(const char* key, const IJSON* value) {
    return value && Set(key, ValueOf(*value));
}
bool JSONWrapper::SetMemberString(const char* key, const char* value, uint64_t size) {
    // Invalid UTF-8 is kept as it is and replaced only when the text is written.
    return Set(key, value ? std::string(value, size) : std::string());
}
bool JSONWrapper::SetMemberNumber(const char* key, double value) { return Set(key, value); }
bool JSONWrapper::SetMemberUInt64(const char* key, uint64_t value) { return Set(key, value); }
bool JSONWrapper::SetMemberBoolean(const char* key, bool value) { return Set(key, value); }

uint64_t JSONWrapper::GetArraySize() const { return value_.is_array() ? value_.size() : 0; }

AutoRefPtr<IJSON> JSONWrapper::GetElement(uint64_t index) const {
    if (!value_.is_array() || index >= value_.size()) return nullptr;
    return AutoRefPtr<IJSON>(new JSONWrapper(value_[index]));
}

bool JSONWrapper::Append(const IJSON* value) {
    if (!value || !value_.is_array()) return false;
    value_.push_back(ValueOf(*value));
    return true;
}

bool JSONWrapper::GetStringValue(std::string& out) const {
    if (!value_.is_string()) return false;
    out = value_.get_ref<const std::string&>();
    return true;
}
bool JSONWrapper::GetNumberValue(double& out) const {
    if (!value_.is_number()) return false;
    out = value_.get<double>();
    return true;
}
bool JSONWrapper::GetBooleanValue(bool& out) const {
    if (!value_.is_boolean()) return false;
    out = value_.get<bool>();
    return true;
}

std::string JSONWrapper::ToJSONText() const {
    return value_.dump(-1, ' ', false, Document::error_handler_t::replace);
}

}  // namespace Ombrix::JSON
