complete -c kestrace -f
complete -c kestrace -o trace -d 'get driver traces'
complete -c kestrace -o dump -r -F -d 'write PCAP compatible dump file'
complete -c kestrace -s d -x -d 'debug level of the driver'
complete -c kestrace -s p -x -d 'debug level of its PPP part'
complete -c kestrace -s o -x -d 'debug level of its OID part'
