#ifndef HOST_STORAGE_S3_LOCATION_H
#define HOST_STORAGE_S3_LOCATION_H

#include <string>

#include "host/http/uri.h"

// Where a pool on an S3-compatible object store lives, as a storage location:
//   "s3+https://ENDPOINT[:PORT]/BUCKET[/PREFIX...]" (or "s3+http://" for a store
// on loopback or where plain http is allowed). The store is addressed
// path-style: every request goes to the endpoint with the bucket as the first
// path segment, which MinIO, Ceph's gateway and Amazon S3 all take. A location
// below the pool (the pool's location with "/host/job" appended) just has a
// longer prefix, so object keys are PREFIX + "/" + name.
class S3_Location
{
public:
  // "s3+http" or "s3+https" followed by "://".
  static bool has_scheme(const std::string& location);
  // Builds the location of `endpoint` (an http(s) URL without path), `bucket`
  // and `prefix` (may be empty); false when the endpoint is not such a URL or
  // the bucket or prefix cannot be part of a location.
  static bool compose(const std::string& endpoint, const std::string& bucket, const std::string& prefix,
                      std::string& location);

  // A region name as stores use them ("us-east-1", "garage"): letters, digits
  // and "-", so that it can be part of a signing scope.
  static bool is_region(const std::string& region);

  // Splits a location; false with `error` set when it is not one.
  bool parse(const std::string& location, std::string& error);

  // The endpoint's scheme, host and port.
  const URI& endpoint() const { return endpoint_; }
  const std::string& bucket() const { return bucket_; }
  // The key prefix without trailing "/", empty for the bucket's root.
  const std::string& prefix() const { return prefix_; }
  // The object key of `name`.
  std::string key(const std::string& name) const;
  // The request path of `key` ("/bucket/seg%20ment/..."), each segment
  // percent-encoded with upper-case digits as Signature V4 signs it.
  std::string object_path(const std::string& key) const;
  // The request path of the bucket itself ("/bucket").
  std::string bucket_path() const;

private:
  URI endpoint_;
  std::string bucket_;
  std::string prefix_;
};

#endif
