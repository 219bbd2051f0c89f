#!/usr/bin/env tclsh
# A client in Tcl: sends a packet and prints the reply.
#   client.tcl HOST:PORT PORT_NAME TEXT
package require combat
source [file join [pwd] port_service.tcl]

lassign $argv address port text
corba::init
set server [corba::string_to_object corbaloc:iiop:$address/PortService]
# A corbaloc says nothing of the type.
if {![$server _is_a IDL:Varo/DT_PORT_SVC/Port_Factory:1.0]} { puts stderr "no port service"; exit 1 }

proc check {what code} {
  if {$code != 0} { puts stderr "$what answered $code"; exit 1 }
}

# Numbers as in the interface definition: 30003 CONNECT_CLIENT, 30002 ACCESS_WAIT. An out argument
# is the name of a variable.
check connect_port [$server connect_port $port handle 30003 30002 owner]
check packet_foward [$server packet_foward $handle [encoding convertto utf-8 $text] 30]
check packet_replay_wait [$server packet_replay_wait $handle reply 30]
puts [encoding convertfrom utf-8 $reply]
check disconnect_port [$server disconnect_port $handle]
corba::release $server
