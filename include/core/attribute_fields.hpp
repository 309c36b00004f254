#pragma once
// Attribute fields describe a node or IO for the user interface. Each is named
// after the configuration key it is read from; none is part of a node's JSON.
#include <string>
#include <string_view>

#include "core/field.hpp"

template <class T>
class AttributeField : public Field<T> {
 public:
  using Field<T>::Field;
};

#define ZEL_ATTRIBUTE_FIELD(Class, T, config_key)                                          \
  class Class : public AttributeField<T> {                                                 \
   public:                                                                                  \
    static constexpr std::string_view key = config_key;                                    \
    explicit Class(T value = T{}) : AttributeField<T>(std::string(key), std::move(value)) {} \
  }

ZEL_ATTRIBUTE_FIELD(NameField, std::string, "name");
ZEL_ATTRIBUTE_FIELD(LabelField, std::string, "label");
ZEL_ATTRIBUTE_FIELD(DetailField, std::string, "detail");
ZEL_ATTRIBUTE_FIELD(IconField, std::string, "icon");
ZEL_ATTRIBUTE_FIELD(AliasField, std::string, "alias");
ZEL_ATTRIBUTE_FIELD(UnitsField, std::string, "units");
ZEL_ATTRIBUTE_FIELD(FormatField, std::string, "format");
ZEL_ATTRIBUTE_FIELD(StoreField, std::string, "store");
ZEL_ATTRIBUTE_FIELD(PermissionsField, std::string, "permissions");
ZEL_ATTRIBUTE_FIELD(ColorField, std::string, "color");
ZEL_ATTRIBUTE_FIELD(TypeField, std::string, "type");
ZEL_ATTRIBUTE_FIELD(DynamicField, bool, "dynamic");
ZEL_ATTRIBUTE_FIELD(HiddenField, bool, "hidden");
ZEL_ATTRIBUTE_FIELD(ReadonlyField, bool, "readonly");

#undef ZEL_ATTRIBUTE_FIELD
