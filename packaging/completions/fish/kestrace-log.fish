complete -c kestrace-log -f
complete -c kestrace-log -l color -x -a 'auto always never' -d 'whether to use colours'
complete -c kestrace-log -l read -r -F -d 'mark a trace that was saved'
complete -c kestrace-log -s d -x -d 'debug level of the driver itself'
complete -c kestrace-log -s p -x -d 'debug level of its PPP part'
complete -c kestrace-log -s o -x -d 'debug level of its OID part'
complete -c kestrace-log -l help -d 'print how it is called'
