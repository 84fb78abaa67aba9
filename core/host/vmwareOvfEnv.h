// The OVF environment document that VMware hands a guest (what
// `vmtoolsd --cmd "info-get guestinfo.ovfEnv"` prints), read into records.
//
// The document is namespaced, so it is read with the namespace separator " "
// (one blank): every element and attribute name below is a namespace URI, a
// blank and a local name. E is the DMTF OVF environment namespace, V is
// VMware's. The names "id" and "name" inherited from CIdNameObject are plain
// names that such a document never uses. Strict checking looks at the first
// letter of a namespaced name, which is the URI's, lower case.
//
// Only reading is meant: written back, the names would not be valid XML.
//
// Ownership: an environment owns its two lists as members, the lists own
// their children. Thread safety: none; a record belongs to one thread.
#pragma once

#include "core/xml/IdNameObject.h"
#include "core/xml/RecordList.h"

namespace VeskCore {

// The namespace URIs, each followed by the blank separator.
#define VESK_OVF_ENV_NS "http://schemas.dmtf.org/ovf/environment/1 "
#define VESK_OVF_VMW_NS "http://www.vmware.com/schema/ovfenv "

// <V:Adapter V:mac="..."/>: one virtual network adapter.
class VESK_EXPORT CvmwareOvfEnv_Adapter : public CIdNameObject {
  public:
    CvmwareOvfEnv_Adapter();

    static wxString ElementName() { return wxS(VESK_OVF_VMW_NS "Adapter"); }
    wxString GetElementName() const override { return ElementName(); }

    wxString mac;
};

// <V:EthernetAdapterSection>: the adapters in document order.
class VESK_EXPORT CvmwareOvfEnv_Adapters : public RecordList<CvmwareOvfEnv_Adapter> {
  public:
    static wxString ElementName() { return wxS(VESK_OVF_VMW_NS "EthernetAdapterSection"); }
    wxString GetElementName() const override { return ElementName(); }
};

// <E:Property E:key="..." E:value="..."/>: one deployment property.
class VESK_EXPORT CvmwareOvfEnv_Property : public CIdNameObject {
  public:
    CvmwareOvfEnv_Property();

    static wxString ElementName() { return wxS(VESK_OVF_ENV_NS "Property"); }
    wxString GetElementName() const override { return ElementName(); }

    wxString key;
    wxString value;
};

// <E:PropertySection>: the properties in document order.
class VESK_EXPORT CvmwareOvfEnv_Propertys : public RecordList<CvmwareOvfEnv_Property> {
  public:
    static wxString ElementName() { return wxS(VESK_OVF_ENV_NS "PropertySection"); }
    wxString GetElementName() const override { return ElementName(); }
};

// <E:Environment V:vCenterId="...">: the root.
class VESK_EXPORT CvmwareOvfEnv : public CIdNameObject {
  public:
    CvmwareOvfEnv();

    static wxString ElementName() { return wxS(VESK_OVF_ENV_NS "Environment"); }
    wxString GetElementName() const override { return ElementName(); }

    wxString vCenterId;
    CvmwareOvfEnv_Adapters adapters;     // a member; never deleted as a child
    CvmwareOvfEnv_Propertys properties;  // a member; never deleted as a child
};

}  // namespace VeskCore
