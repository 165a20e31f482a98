#ifndef HOST_STORAGE_S3_ANSWER_H
#define HOST_STORAGE_S3_ANSWER_H

#include <string>
#include <vector>

#include "host/base/host_status.h"
#include "host/http/http_request.h"

// Reads the XML answers of the S3 API that Client_IO_S3 uses, and classifies
// an answer into a Host_Status.
class S3_Answer
{
public:
  // The status of an answer: http_answer_status for the HTTP status, with the
  // store's <Error><Code> and <Message> as the detail. "SlowDown" is throttled
  // whatever the HTTP status; "InternalError" transient. A 200 answer whose body
  // is an <Error> document (CompleteMultipartUpload may answer so after its
  // status line went out) is a failure, classified the same way.
  static Host_Status status(const HTTP_Response& response);

  // The <Error><Code> of an answer's body, empty when it has none.
  static std::string error_code(const HTTP_Response& response);

  // <InitiateMultipartUploadResult><UploadId>; false when absent.
  static bool upload_id(const std::string& body, std::string& id);

  struct Listing
  {
    std::vector<std::string> keys;  // <Contents><Key> in the order given
    bool truncated = false;         // <IsTruncated>true
    std::string next_token;         // <NextContinuationToken>
  };
  // <ListBucketResult> of ListObjectsV2; false when the body is not one.
  static bool listing(const std::string& body, Listing& out);

  // The <CompleteMultipartUpload> request body for the parts' ETags, in part-number order.
  static std::string complete_body(const std::vector<std::string>& etags);
};

#endif
