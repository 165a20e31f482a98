#ifndef HOST_EWS_EWS_TYPES_H
#define HOST_EWS_EWS_TYPES_H

#include <string>

// Kinds of folders and items, as the EWS element that carries them says
// (t:Folder, t:CalendarFolder, ...; t:Message, t:CalendarItem, ...).
enum EWS_Folder_Type
{
  EWS_FOLDER_TYPE_FOLDER = 1,
  EWS_FOLDER_TYPE_CALENDAR = 2,
  EWS_FOLDER_TYPE_CONTACTS = 3,
  EWS_FOLDER_TYPE_SEARCH = 4,
  EWS_FOLDER_TYPE_TASKS = 5,
};

enum EWS_Item_Type
{
  EWS_ITEM_TYPE_ITEM = 1,
  EWS_ITEM_TYPE_MESSAGE = 2,
  EWS_ITEM_TYPE_CALENDARITEM = 3,
  EWS_ITEM_TYPE_CONTACT = 4,
  EWS_ITEM_TYPE_DISTRIBUTIONLIST = 5,
  EWS_ITEM_TYPE_MEETINGMESSAGE = 6,
  EWS_ITEM_TYPE_MEETINGREQUEST = 7,
  EWS_ITEM_TYPE_MEETINGRESPONSE = 8,
  EWS_ITEM_TYPE_MEETINGCANCELLATION = 9,
  EWS_ITEM_TYPE_TASK = 10,
  EWS_ITEM_TYPE_POSTITEM = 11,
};

// Distinguished folder names, numbered in the order of the EWS schema's
// DistinguishedFolderIdNameType enumeration.
enum ewstype__DistinguishedFolderIdNameType
{
  ewstype__DistinguishedFolderIdNameType__calendar = 0,
  ewstype__DistinguishedFolderIdNameType__contacts = 1,
  ewstype__DistinguishedFolderIdNameType__deleteditems = 2,
  ewstype__DistinguishedFolderIdNameType__drafts = 3,
  ewstype__DistinguishedFolderIdNameType__inbox = 4,
  ewstype__DistinguishedFolderIdNameType__journal = 5,
  ewstype__DistinguishedFolderIdNameType__notes = 6,
  ewstype__DistinguishedFolderIdNameType__outbox = 7,
  ewstype__DistinguishedFolderIdNameType__sentitems = 8,
  ewstype__DistinguishedFolderIdNameType__tasks = 9,
  ewstype__DistinguishedFolderIdNameType__msgfolderroot = 10,
  ewstype__DistinguishedFolderIdNameType__publicfoldersroot = 11,
  ewstype__DistinguishedFolderIdNameType__root = 12,
  ewstype__DistinguishedFolderIdNameType__junkemail = 13,
  ewstype__DistinguishedFolderIdNameType__searchfolders = 14,
  ewstype__DistinguishedFolderIdNameType__voicemail = 15,
};

// The schema name of a distinguished folder ("msgfolderroot"), or null when the
// value is not one of the above.
const char* ews_distinguished_folder_name(int code);

// Element names and types, both ways. Unknown element names map to the generic
// kinds (EWS_FOLDER_TYPE_FOLDER, EWS_ITEM_TYPE_ITEM).
EWS_Folder_Type ews_folder_type_of(const std::string& element);
const char* ews_folder_element(EWS_Folder_Type type);
EWS_Item_Type ews_item_type_of(const std::string& element);
const char* ews_item_element(EWS_Item_Type type);

// Item export data as EWS carries it (base64 of an opaque stream).
typedef std::basic_string<unsigned char> ustring;

#endif
