// Small value classes exported for the hosting programs; nothing in the library uses them.
#pragma once

/// Base of the two below.
class vrData {
 public:
  vrData() = default;
  vrData(const vrData&) = default;
  vrData& operator=(const vrData&) = default;
  virtual ~vrData() = default;

 private:
  virtual void dummy() = 0;
};

/// A named place in memory. It copies and frees nothing: the pointers are the caller's.
class vrPoint : public vrData {
 public:
  vrPoint(const char* name, unsigned char* data) : name_(name), data_(data) {}

  const char* name() const { return name_; }
  unsigned char* data() const { return data_; }

 private:
  void dummy() override {}

  const char* name_;
  unsigned char* data_;
};

/// A named and numbered place in memory. It copies and frees nothing.
class vrPort : public vrData {
 public:
  vrPort(unsigned int number, const char* name, unsigned char* data)
      : name_(name), number_(number), data_(data) {}

  const char* name() const { return name_; }
  unsigned int number() const { return number_; }
  unsigned char* data() const { return data_; }

 private:
  void dummy() override {}

  const char* name_;
  unsigned int number_;
  unsigned char* data_;
};
