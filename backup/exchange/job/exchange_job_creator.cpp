#include "backup/exchange/job/exchange_job_creator.h"

#include "backup/exchange/job/module_exports.h"
#include "host/job/default_backup_job_source_parser.h"

EXCHANGE_OBJECT_EXPORTS(Exchange_Job_Creator, Exchange_Job_Creator, Job_Creator)

// A backup job's source is the host's generic backup source; the module hands
// out the host's parser for it so that the host reads every definition part
// through the module.
EXCHANGE_PARSER_CREATOR_EXPORTS(Exchange_Backup_Job_Source_Parser_Creator, Default_Backup_Job_Source_Parser)
