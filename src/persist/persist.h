/*
 * persist.h - sessions, subscriptions, offline and retained messages on disk.
 *
 * The module owns the data directory: for each client <root>/session/<id>.json, and the same in subscription/ and
 * message/, and <root>/retain.dat. Packet handling and closing write what changed at once, connecting reads it back,
 * the broker's init fills the tables from it.
 *
 *   threads   any, at once, except persist_init
 *   locks     three in this order, each dropped before the call returns: that of one client's files, which is hidden,
 *             g_sub_mgr.lock, g_persist_mutex. The caller holds none of them, nor a client's send_lock or will_lock.
 *   memory    what is passed in is read before the call returns; records are filled in place
 *   files     each is written whole beside the old one ("<name>.tmp") and renamed into its place, so a kill at any
 *             moment leaves the old content or the new. Writing waits for the disk, and tries three times, 10 ms apart.
 *             A client whose id has a '/' has no files: each write of one is an ERROR line.
 *   counters  persist_write for each file written, persist_read for each one read
 *   log       no failure stops the broker; what cannot be written has an ERROR line
 */
#ifndef TARN_PERSIST_PERSIST_H
#define TARN_PERSIST_PERSIST_H

#include "persist_types.h"
#include "../base/mutex_type.h"

TARN_API_BEGIN

/* The data directory, "./mqtt_data" until persist_init, which alone writes it. Any thread reads it, without a lock. */
extern char g_persist_root_path[PERSIST_PATH_SIZE];

/* Held while sessions are loaded, files removed, retain.dat read. Nothing else is locked by its holder. */
extern tarn_mutex_t g_persist_mutex;

/* ----------------------------------------------------------------------------------------------- life of the module */

/*
 * Takes over the data directory, makes what is missing of it and its three folders, and fills the subscription table
 * and the store of retained messages from it. To be called after sub_init, by one thread, and with another directory
 * only while no client is served.
 *
 *   root_path  up to 511 characters, the rest is cut off; null or empty keeps the directory of before. Only its last
 *              level is made.
 *   returns    0 always, even when nothing can be made or read. INFO lines tell what is loaded, a WARN line that there
 *              is no folder or no retain.dat.
 */
int persist_init(const char *root_path);

/*
 * The end of the module: one INFO line. Everything goes on working, since clients may still close.
 *
 *   returns   0 always
 */
int persist_destroy(void);

/*
 * Kept for hosts. Each writes one line, the first at INFO, the others at DEBUG. persist_flush returns when every change
 * made so far is on the disk; the others do nothing else, as sessions do not expire there.
 */
void persist_stop(void);
void persist_flush(void);
void persist_clean_expire(void);

/* ------------------------------------------------------------------------------------------------------------ files */

/*
 * Makes a folder, rights 0755, unless something of that name exists. A DEBUG line says so even where it failed.
 *
 *   path      not null; the folder above it exists
 */
void persist_make_dir(const char *path);

/*
 * Replaces a file by a text, with all the care of this module. Takes no lock: two threads do not write the same path at
 * once. To write a client's file, use persist_mark instead.
 *
 *   path      not null, not empty, up to 507 characters
 *   text      not null; written without its NUL
 *
 * On failure the old file stays, and one ERROR line tells.
 */
void persist_safe_write(const char *path, const char *text);

/*
 * Deletes a client's three files, without a line.
 *
 *   client_id  the whole id
 *   returns    0    also when there was no file, or one could not be deleted
 *              -1   a null id
 *              -5   too little memory; nothing deleted
 */
int persist_remove(const char *client_id);

/* --------------------------------------------------------------------------------------------------------- sessions */

/*
 * Writes one of a client's files from its record [MQTT-3.1.2-4]. Does nothing for a null record, an empty id or a set
 * clean_session.
 *
 *   rec       only read, but for the end of its id, which is terminated; nobody changes it during the call
 *   what      PERSIST_SESSION         cut after 227 characters
 *             PERSIST_SUBSCRIPTIONS   with none of them the old file stays
 *             PERSIST_MESSAGES        with none of them an empty list is written
 */
void persist_mark(persist_session_t *rec, uint8_t what);

/*
 * The same without looking at the id, for callers that know it is not empty. With several bits in `what` the session
 * file is cut later: by 288 characters for each subscription and by 2368 for each message that is written with it.
 */
void persist_flush_single(persist_session_t *rec, uint8_t what);

/*
 * Reads a client's three files into a record. Fields that no file names keep their values; the lists are replaced.
 * Counts a read for the session file and one for the message file.
 *
 *   rec       its client_id says whose; 150 KB, too much for a small stack
 *   returns   0    for any id, with all files, some or none. An INFO line tells the number of subscriptions, a WARN
 *                  line a message file without a list, an ERROR line that memory for the messages was missing.
 *             -1   a null record or an empty id
 *             -5   too little memory; nothing read
 *
 * Of a subscription file 2047 bytes are read, of a message file 4095; several fields of a will come back empty
 * (docs/deviations.md).
 */
int persist_load(persist_session_t *rec);

/*
 * Tells whether a client has a subscription file, and if so clears the record's clean_session. Loads nothing, takes no
 * lock, counts one read.
 *
 *   rec       its client_id says whose
 *   returns   0    there is one
 *             -1   a null record or an empty id
 *             -4   there is none, or it cannot be opened
 */
int persist_load_client_only(persist_session_t *rec);

/*
 * Adds the subscriptions in all files of the subscription folder to the table, as those of sessions that are kept. The
 * files are taken in the order of the file system. One INFO line a client; one WARN line when there is no folder.
 * Called by persist_init.
 */
void persist_load_all_persisted_subscriptions(void);

/* ------------------------------------------------------------------------------------------------- offline messages */

/*
 * Keeps a message for a client that is away [MQTT-3.1.2-5]: reads its files, adds the message, writes the message file.
 * With PERSIST_MSGS_MAX there already, the oldest goes, and a WARN line tells.
 *
 *   client_id    not null; an empty one keeps nothing
 *   topic        not null, up to 255 characters, the rest is cut off
 *   payload      not null
 *   payload_len  bytes, 1 or more; above 1024 the rest is cut off
 *   qos          to deliver at, 0..2
 *   returns      0    kept, or an ERROR line says that it could not be written; with the lines of persist_load
 *                -1   a wrong argument, or too little memory; nothing written
 */
int persist_add_offline_msg(const char *client_id, const char *topic, const uint8_t *payload, int32_t payload_len,
                            uint8_t qos);

/*
 * Removes all kept messages with this number of their own, and writes the message file whether there were any or not.
 *
 *   client_id  not null
 *   msgid      1..65535, as persist_load gave it
 *   returns    0    done
 *              -1   a null id or msgid 0
 *              -4   an empty id, or too little memory; nothing written
 */
int persist_remove_offline_msg(const char *client_id, uint16_t msgid);

/* ------------------------------------------------------------------------------------------------------- retain.dat */

/*
 * Writes all retained messages to retain.dat: their number in four bytes, then the records as they lie in memory.
 * Unlike the other files, it is not forced to the disk.
 *
 *   returns   0    written; also when the disk is full, then the old file stays
 *             -2   it cannot be opened or renamed, or too little memory; one ERROR line
 */
int persist_retain_save(void);

/*
 * Replaces the retained messages by those in retain.dat. A file that is empty, too short or says more than
 * RETAIN_CAPACITY changes nothing. The path, "/retain.dat" included, may have 255 characters, fewer than it is saved
 * under. To be called after sub_init.
 *
 *   returns   0    the file could be opened, whatever it held; an INFO line when it was taken
 *             -4   it could not; one WARN line
 */
int persist_retain_load(void);

TARN_API_END

TARN_LAYOUT_CHECK(sizeof(g_persist_root_path) == 512);

#endif
