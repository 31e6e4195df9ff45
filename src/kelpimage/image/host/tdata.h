// A small typed-data system of the kind a host application keeps, so that
// images can be held as typed values: metaclasses with names, tags and
// creators; shared letter objects behind Tdata handles; the host's type
// numbers (KFn) with their parents (KObjBase).
#pragma once

#include <cstdint>
#include <new>
#include <vector>

#include "kelpimage/base/terrorhandler.h"
#include "kelpimage/base/tstring.h"
#include "kelpimage/kelpexport.h"

class Tmetaclass;
class TdataLetter;

// A type number of the host's interface.
class KELP_API KFn {
 public:
  explicit KFn(int type = 0) : fType(type) {}
  int type() const { return fType; }
  bool operator==(const KFn& o) const { return fType == o.fType; }

 private:
  int fType;
};

// The table of host type numbers and their parents.
class KELP_API KObjBase {
 public:
  static void add(int type, const std::vector<int>& parents);
  static bool isRegistered(int type);
  // True if `type` is `ancestor` or derives from it.
  static bool isA(int type, int ancestor);
};

// What the host's programming interface sees of an object.
class KELP_API KPtrBase {
 public:
  virtual ~KPtrBase() = default;
  virtual KFn apiType() const { return KFn(0); }
  virtual void apiReference() {}
  virtual void apiUnreference() {}
  virtual bool apiHasReferenceCounting() const { return false; }
  virtual const char* apiTypeString() const { return "kInvalidObject"; }
  virtual void* apiUserObject() const { return fUserObject; }
  virtual void setApiUserObject(void* object) { fUserObject = object; }
  virtual void* pluginNodeInfo() const { return fNodeInfo; }
  virtual void setPluginNodeInfo(void* info) { fNodeInfo = info; }
  virtual void clearInstance() { fUserObject = nullptr; }

 private:
  void* fUserObject = nullptr;
  void* fNodeInfo = nullptr;
};

// An object shared by reference count, allocated through its own operator new.
class KELP_API TmultiSharedObject {
 public:
  TmultiSharedObject() = default;
  TmultiSharedObject(const TmultiSharedObject&) : fRefs(0) {}
  TmultiSharedObject& operator=(const TmultiSharedObject&) { return *this; }
  virtual ~TmultiSharedObject() = default;
  static void* operator new(size_t size);
  static void* operator new(size_t size, const std::nothrow_t&) noexcept;
  static void operator delete(void* p);
  void reference() { ++fRefs; }
  // Drops a reference; the object deletes itself at the last.
  void unreference();
  int references() const { return fRefs; }

 private:
  int fRefs = 0;
};

// A class of data: name, size, creator, a four-character tag, a parent.
class KELP_API Tmetaclass {
 public:
  using Creator = TdataLetter* (*)(Tmetaclass*);
  Tmetaclass(const char* name, size_t size, Creator creator, uint32_t tag, bool abstract, Tmetaclass* parent,
             Tmetaclass* extra1 = nullptr, Tmetaclass* extra2 = nullptr, Tmetaclass* extra3 = nullptr);
  const char* name() const { return fName; }
  uint32_t tag() const { return fTag; }
  size_t size() const { return fSize; }
  Tmetaclass* parent() const { return fParent; }
  // True if this class is `ancestor` or derives from it.
  bool istype(const Tmetaclass* ancestor) const;
  // A new instance of `m`, made by its creator; `base` names what the caller expects.
  static TdataLetter* construct(Tmetaclass* m, Tmetaclass* base);
  static Tmetaclass* byName(const char* name);
  static Tmetaclass* byTag(uint32_t tag);

 private:
  const char* fName;
  size_t fSize;
  Creator fCreator;
  uint32_t fTag;
  bool fAbstract;
  Tmetaclass* fParent;
};

// The registration record of a metaclass.
class KELP_API TmetaLetter {
 public:
  explicit TmetaLetter(Tmetaclass* meta) : fMeta(meta) {}
  Tmetaclass* metaclass() const { return fMeta; }

 private:
  Tmetaclass* fMeta;
};

class Tdata;

// The letter behind a Tdata handle: every operation a value may have, with
// defaults that do nothing or answer no.
class KELP_API TdataLetter : public TmultiSharedObject {
 public:
  ~TdataLetter() override = default;
  virtual void debug(TdebugOutput& out, unsigned depth) const;
  virtual void reset() {}
  virtual TdataLetter* copy() const = 0;
  virtual Tmetaclass* typeof() const;
  virtual void* cast(Tmetaclass* m);
  virtual size_t _getFootprint() const { return typeof()->size(); }
  virtual bool operator==(const Tdata& other) const;
  virtual bool operator==(const TdataLetter& other) const { return this == &other; }
  virtual bool operator!=(const Tdata& other) const { return !(*this == other); }
  virtual bool operator!=(const TdataLetter& other) const { return !(*this == other); }
  virtual bool operator<=(const Tdata&) const { return false; }
  virtual bool operator<=(const TdataLetter&) const { return false; }
  virtual bool operator>=(const Tdata&) const { return false; }
  virtual bool operator>=(const TdataLetter&) const { return false; }
  virtual bool operator<(const Tdata&) const { return false; }
  virtual bool operator<(const TdataLetter&) const { return false; }
  virtual bool operator>(const Tdata&) const { return false; }
  virtual bool operator>(const TdataLetter&) const { return false; }
  virtual TdataLetter* operator+(const TdataLetter&) const { return nullptr; }
  virtual TdataLetter* operator-(const TdataLetter&) const { return nullptr; }
  virtual TdataLetter* operator*(const TdataLetter&) const { return nullptr; }
  virtual TdataLetter* operator/(const TdataLetter&) const { return nullptr; }
  virtual TdataLetter& operator+=(const Tdata&) { return *this; }
  virtual TdataLetter& operator+=(const TdataLetter&) { return *this; }
  virtual TdataLetter& operator-=(const Tdata&) { return *this; }
  virtual TdataLetter& operator-=(const TdataLetter&) { return *this; }
  virtual TdataLetter& operator*=(const Tdata&) { return *this; }
  virtual TdataLetter& operator*=(const TdataLetter&) { return *this; }
  virtual TdataLetter& operator/=(const Tdata&) { return *this; }
  virtual TdataLetter& operator/=(const TdataLetter&) { return *this; }
  virtual double doubleValue() const { return 0.0; }
  virtual void madeIntoWriter() {}
  virtual void madeIntoNonWriter() {}
  virtual bool hasWriter() const { return false; }
  // Scene file forms: 0 on success, -1 when the value cannot be stored.
  virtual int readASCII(const char*) { return -1; }
  virtual int readBinary(const void*, size_t) { return -1; }
  virtual int writeASCII(Tstring&) const { return -1; }
  virtual int writeBinary(std::vector<uint8_t>&) const { return -1; }
  virtual const char* typeName() const { return typeof()->name(); }
  virtual uint32_t iffTag() const { return typeof()->tag(); }
};

KELP_API extern Tmetaclass TdataLetterTmeta;
KELP_API extern Tmetaclass TdataTmeta;
KELP_API extern Tmetaclass TdataNumericTmeta;

// A handle on a letter, shared by reference count. A handle may instead
// hold a direct value, marked by the low bit of its word.
class KELP_API Tdata {
 public:
  Tdata() = default;
  explicit Tdata(TdataLetter* letter);
  Tdata(const Tdata& other);
  Tdata& operator=(const Tdata& other);
  ~Tdata();
  static Tdata directValue(uintptr_t value);
  bool isDirect() const { return fWord & 1u; }
  uintptr_t directBits() const { return fWord >> 1; }
  TdataLetter* privateDataStar() const { return isDirect() ? nullptr : reinterpret_cast<TdataLetter*>(fWord); }

 private:
  uintptr_t fWord = 0;
};
