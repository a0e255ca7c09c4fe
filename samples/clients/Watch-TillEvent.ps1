<#
.SYNOPSIS
  Prints the device events of a till as they happen, until Ctrl+C.
.EXAMPLE
  .\Watch-TillEvent.ps1
.EXAMPLE
  .\Watch-TillEvent.ps1 -ComputerName till0417-7 | Add-Content -Encoding UTF8 events.txt
.NOTES
  Written by the cmdlets' documentation; not yet run on a Windows.
#>
[CmdletBinding()]
param([string] $ComputerName)

$source = 'Quillmon.{0}' -f [guid]::NewGuid()
$subscription = @{
    Namespace = 'root/cimv2'; Query = 'SELECT * FROM QuillmonEvent'; SourceIdentifier = $source
}
if ($ComputerName) { $subscription.ComputerName = $ComputerName }

Register-CimIndicationEvent @subscription
try {
    while ($true) {
        $arrived = Wait-Event -SourceIdentifier $source
        $device = $arrived.SourceEventArgs.NewEvent
        '{0:s} {1,-14} {2,-12} {3} {4}' -f $arrived.TimeGenerated, $device.eventtype,
            $device.classname, $device.deviceid, $device.codename
        Remove-Event -EventIdentifier $arrived.EventIdentifier
    }
} finally {
    Unregister-Event -SourceIdentifier $source
}
