#ifndef BACKUP_EXCHANGE_CORE_EWS_EXCHANGE_COMMON_H
#define BACKUP_EXCHANGE_CORE_EWS_EXCHANGE_COMMON_H

// How a backup reads an Exchange mailbox. Only EWS is implemented by this module;
// the other values name methods of on-premises servers and are kept so that option
// documents naming them are read faithfully.
enum Exchange_Backup_Method
{
  EXCHANGE_BACKUP_METHOD_NONE = 0,
  EXCHANGE_BACKUP_METHOD_VSS = 1,
  EXCHANGE_BACKUP_METHOD_STREAMING = 2,
  EXCHANGE_BACKUP_METHOD_MAPI = 3,
  EXCHANGE_BACKUP_METHOD_EWS = 4,
};

#endif
