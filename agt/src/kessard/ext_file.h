// File transfer to and from the host, on the connection of an extended request.
//
// Both keep to one buffer of 1 MiB whatever the size of a file, touch regular files only and never
// wait for a file. A refused request is answered with a header of status 'E' and a text that is
// also logged.
#pragma once

namespace kessard {

// Writes files onto the host. `data` (terminated, taken apart in place; empty when `length` is
// below 1) names a directory, which is made, and for each file its name, size and permission as
// decimal numbers; the bytes of all files follow on the connection after the 'A' header, and
// nothing is sent when they have come. A failure behind that header sends an 'E' header after it;
// one without a text means that the bytes did not come.
void file_upload(int sockfd, char* data, int length);

// Sends files of the host. `data`, as above, is a list of paths. The 'A' header is followed by the
// number of files as 32 bits in network order, an ST_FILE_INFO for each, and their bytes, never
// more than announced; then one byte is awaited from the peer.
void file_download(int sockfd, char* data, int length);

} // namespace kessard
