#ifndef TESTS_SUPPORT_LIMIT_H
#define TESTS_SUPPORT_LIMIT_H

#include <sys/resource.h>

// The soft limit of the process for a resource, for the lifetime of this object.
class Limit {
  public:
    Limit(int resource_, rlim_t value) : resource(resource_)
    {
        getrlimit(resource, &before);
        const rlimit limit = {value, before.rlim_max};
        setrlimit(resource, &limit);
    }
    ~Limit() { setrlimit(resource, &before); }
    Limit(const Limit &) = delete;
    Limit &operator=(const Limit &) = delete;

  private:
    const int resource;
    rlimit before = {};
};

#endif
