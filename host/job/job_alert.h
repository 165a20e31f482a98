#ifndef HOST_JOB_JOB_ALERT_H
#define HOST_JOB_JOB_ALERT_H

#include <cstdint>
#include <nlohmann/json_fwd.hpp>

class Job;

// Raises an alert about a job for the administrator: logged (level 7 and above
// as an error, 5 and 6 as a warning, below as information) and appended as one
// JSON line to <state dir>/alerts.jsonl:
//   {"time": ..., "job_id": ..., "job_uid": ..., "level": 7,
//    "code": "0x7000003050000006", "code2": "0x0", "params": [...]}
// `params` is null or an array of texts. Answers 0, or -1 when the alert could
// not be stored (it is still logged).
int write_job_alert(const Job* job, int level, uint64_t code, uint64_t code2, const nlohmann::ordered_json& params);

#endif
