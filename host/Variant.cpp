#include "Variant.h"

#include "Ombrix/Data.h"
#include "Ombrix/Json.h"

namespace Ombrix::Host {

namespace {

// The buffer of Variant::LentData: reads the lender's bytes until it is
// given bytes of its own (Own, or an Assign).
class LentBytes final : public UseCounted<IDataRef> {
public:
    explicit LentBytes(std::string_view lent) : view_(lent) {}

    uint64_t GetSize() const override { return view_.size(); }
    bool Assign(const char* bytes, uint64_t size) override {
        own_.assign(bytes ? bytes : "", bytes ? size : 0);
        view_ = own_;
        return true;
    }
    uint64_t Read(char* destination, uint64_t size, uint64_t offset) const override {
        if (offset >= view_.size()) return 0;
        const uint64_t count = std::min<uint64_t>(size, view_.size() - offset);
        std::memcpy(destination, view_.data() + offset, count);
        return count;
    }
    bool IsEqual(const IDataRef* other) const override {
        if (!other || other->GetSize() != view_.size()) return false;
        if (view_.empty()) return true;
        if (const char* theirs = other->GetData()) return std::memcmp(theirs, view_.data(), view_.size()) == 0;
        std::string copy(view_.size(), '\0');
        return other->Read(copy.data(), copy.size(), 0) == copy.size() && copy == view_;
    }
    AutoRefPtr<IDataRef> Clone() const override { return AutoRefPtr<IDataRef>(Data::Make(std::string(view_))); }
    const char* GetData() const override { return view_.data(); }

    void Own() {
        if (view_.data() == own_.data()) return;
        own_.assign(view_);
        view_ = own_;
    }

private:
    std::string_view view_;
    std::string own_;
};

}  // namespace

std::string BuiltinTypeName(uint32_t code) {
    const char* base = nullptr;
    switch (BaseOf(code)) {
        case kBaseBoolean: base = "BOOLEAN"; break;
        case kBaseNumber: base = "NUMBER"; break;
        case kBaseString: base = "STRING"; break;
        case kBaseDataRef: base = "DATAREF"; break;
        case kBaseStream: base = "STREAM"; break;
        case kBaseFirstCustom: base = "JSON"; break;
        default: return {};
    }
    switch (ContainerOf(code)) {
        case Container::Single: return base;
        case Container::Vector: return std::string("VECTOR<") + base + ">";
        case Container::NumberMap: return std::string("MAP<NUMBER,") + base + ">";
        case Container::StringMap: return std::string("MAP<STRING,") + base + ">";
    }
    return {};
}

namespace {

// A buffer holding its own copy of another's bytes (null for null).
AutoRefPtr<IDataRef> CopyOf(const AutoRefPtr<IDataRef>& data) {
    if (!data) return nullptr;
    const DataBytes bytes(data);
    return AutoRefPtr<IDataRef>(Data::Make(std::string(bytes.view())));
}

}  // namespace

AutoRefPtr<Variant> Variant::Boolean(bool value) {
    AutoRefPtr<Variant> v(new Variant(kTypeBoolean));
    v->AssignBoolean(value);
    return v;
}
AutoRefPtr<Variant> Variant::Number(double value) {
    AutoRefPtr<Variant> v(new Variant(kTypeNumber));
    v->AssignNumber(value);
    return v;
}
AutoRefPtr<Variant> Variant::String(std::string value) {
    AutoRefPtr<Variant> v(new Variant(kTypeString));
    v->string_ = std::move(value);
    v->assigned_ = true;
    return v;
}
AutoRefPtr<Variant> Variant::LentString(const char* text, size_t size) {
    AutoRefPtr<Variant> v(new Variant(kTypeString));
    v->lent_ = std::string_view(text, size);
    v->assigned_ = true;
    return v;
}
AutoRefPtr<Variant> Variant::LentData(const char* bytes, size_t size) {
    AutoRefPtr<Variant> v(new Variant(kTypeDataRef));
    v->AssignData(AutoRefPtr<IDataRef>(new LentBytes(std::string_view(bytes, size))));
    v->lentData_ = true;
    return v;
}
void Variant::MakeOwned() {
    if (lent_.data()) {
        string_.assign(lent_);
        lent_ = {};
    }
    if (lentData_) static_cast<LentBytes*>(data_.get())->Own();
    lentData_ = false;
}
bool Variant::Shared() const noexcept {
    return GetCount() > 1 || (lentData_ && data_->GetCount() > 1);
}
AutoRefPtr<Variant> Variant::DataRef(AutoRefPtr<IDataRef> value) {
    AutoRefPtr<Variant> v(new Variant(kTypeDataRef));
    v->AssignData(std::move(value));
    return v;
}
AutoRefPtr<IVariant> Variant::Owning(IVariant* value) {
    // In place, so that whoever else holds the value or its buffer (a routine
    // keeping a reference across the park) reads owned bytes too.
    if (auto* own = dynamic_cast<Variant*>(value); own && own->IsLent()) own->MakeOwned();
    return AutoRefPtr<IVariant>::Share(value);
}

AutoRefPtr<Variant> Variant::Object(AutoRefPtr<IUserDefinedType> value) {
    AutoRefPtr<Variant> v(new Variant(value ? value->GetType() : 0));
    v->SetUserDefined(std::move(value));
    return v;
}

std::string Variant::GetTypeAsString(IContext*) const {
    if (object_) return object_->GetName();
    std::string name = BuiltinTypeName(type_);
    return name.empty() ? "UNKNOWN" : name;
}

IUserDefinedType* Variant::GetUserDefinedPtr() const {
    if (object_) object_->AddRef();
    return object_.get();
}

uint64_t Variant::GetVectorSize() const { return vector_ ? vector_->GetSize() : 0; }

void Variant::Reset(uint32_t type) {
    type_ = type;
    assigned_ = true;
    boolean_ = false;
    number_ = 0;
    string_.clear();
    lent_ = {};
    lentData_ = false;
    data_ = nullptr;
    stream_ = nullptr;
    object_ = nullptr;
    vector_ = nullptr;
    map_ = nullptr;
}

bool Variant::IsEqual(const IVariant* other) const {
    if (!other || other->GetType() != type_) return false;
    switch (type_) {
        case kTypeBoolean: return boolean_ == other->GetBoolean();
        case kTypeNumber: return number_ == other->GetNumber();
        case kTypeString:
            return Text() == std::string_view(other->GetString() ? other->GetString() : "", other->GetStringSize());
        case kTypeDataRef: {
            AutoRefPtr<IDataRef> theirs = other->GetData();
            if (!data_ || !theirs) return !data_ && !theirs;
            return data_->IsEqual(theirs.get());
        }
        default: {
            AutoRefPtr<IUserDefinedType> theirs(other->GetUserDefinedPtr());
            return object_ && theirs && object_->IsEqual(theirs.get());
        }
    }
}

bool Variant::Assign(const IVariant* other) {
    if (!other) return false;
    Reset(other->GetType());
    boolean_ = other->GetBoolean();
    number_ = other->GetNumber();
    if (const char* text = other->GetString()) string_.assign(text, other->GetStringSize());
    data_ = other->GetData();
    // A copy never reads lent bytes: it may be kept after the lender's call.
    if (const auto* own = dynamic_cast<const Variant*>(other); own && own->lentData_) data_ = CopyOf(data_);
    stream_ = other->GetStream();
    object_ = AutoRefPtr<IUserDefinedType>(other->GetUserDefinedPtr());
    vector_ = other->GetVector();
    map_ = other->GetMap();
    return true;
}

bool Variant::AssignBoolean(bool value) {
    Reset(kTypeBoolean);
    boolean_ = value;
    return true;
}
bool Variant::AssignNumber(double value) {
    Reset(kTypeNumber);
    number_ = value;
    return true;
}
bool Variant::AssignString(const char* value, uint64_t size) {
    Reset(kTypeString);
    if (value) string_.assign(value, size);
    return true;
}
bool Variant::AssignData(AutoRefPtr<IDataRef> value) {
    Reset(kTypeDataRef);
    data_ = std::move(value);
    return true;
}
bool Variant::AssignStream(AutoRefPtr<IStream> value) {
    Reset(kTypeStream);
    stream_ = std::move(value);
    return true;
}
bool Variant::SetUserDefined(AutoRefPtr<IUserDefinedType> value) {
    // A result keeps its declared custom type when the routine sets no object.
    Reset(value ? value->GetType() : type_);
    object_ = std::move(value);
    return true;
}
bool Variant::AssignVector(AutoRefPtr<IVectorGeneric> value) {
    uint32_t type = type_;
    if (value) type = (BaseOf(value->GetElementType()) << 2) | static_cast<uint32_t>(Container::Vector);
    Reset(type);
    vector_ = std::move(value);
    return true;
}
bool Variant::AssignMap(AutoRefPtr<IMapGeneric> value) {
    Reset(type_);
    map_ = std::move(value);
    return true;
}

AutoRefPtr<IVariant> Variant::Clone() const {
    AutoRefPtr<Variant> copy(new Variant(type_));
    copy->Assign(this);
    copy->assigned_ = assigned_;
    if (object_) copy->object_ = object_->Clone();
    return AutoRefPtr<IVariant>(std::move(copy));
}

bool Variant::Deserialize(const IJSON* json, IContext* context) {
    if (!json) return false;
    if (object_) return object_->Deserialize(json, context);
    switch (type_) {
        case kTypeBoolean: {
            bool value;
            return json->GetBooleanValue(value) && AssignBoolean(value);
        }
        case kTypeNumber: {
            double value;
            return json->GetNumberValue(value) && AssignNumber(value);
        }
        case kTypeString: {
            std::string value;
            return json->GetStringValue(value) && AssignString(value.data(), value.size());
        }
        default: return false;
    }
}

AutoRefPtr<IJSON> Variant::Serialize(IContext* context) const {
    switch (type_) {
        case kTypeBoolean: return AutoRefPtr<IJSON>(new JSON::JSONWrapper(boolean_));
        case kTypeNumber: return AutoRefPtr<IJSON>(new JSON::JSONWrapper(number_));
        case kTypeString: return AutoRefPtr<IJSON>(new JSON::JSONWrapper(std::string(Text())));
        default: return object_ ? object_->Serialize(context) : nullptr;
    }
}

AutoRefPtr<IVariant> Vector::GetElement(uint64_t index) const {
    if (index >= elements_.size()) return nullptr;
    return AutoRefPtr<IVariant>(elements_[index]);
}

bool Vector::Accept(AutoRefPtr<Variant> value) {
    if (value->GetType() != elementType_) return false;
    elements_.push_back(std::move(value));
    return true;
}

bool Vector::Append(const IVariant* value) {
    if (!value) return false;
    AutoRefPtr<Variant> copy(new Variant(value->GetType()));
    copy->Assign(value);
    return Accept(std::move(copy));
}
bool Vector::AppendBoolean(bool value) { return Accept(Variant::Boolean(value)); }
bool Vector::AppendNumber(double value) { return Accept(Variant::Number(value)); }
bool Vector::AppendString(const char* value, uint64_t size) {
    return Accept(Variant::String(value ? std::string(value, size) : std::string()));
}
bool Vector::AppendData(AutoRefPtr<IDataRef> value) { return Accept(Variant::DataRef(std::move(value))); }
bool Vector::AppendUserDefined(AutoRefPtr<IUserDefinedType> value) {
    if (!value) return false;
    return Accept(Variant::Object(std::move(value)));
}

}  // namespace Ombrix::Host
