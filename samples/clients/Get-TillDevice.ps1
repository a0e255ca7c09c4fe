<#
.SYNOPSIS
  Lists point-of-service devices, of this till or of many, through CIM sessions (WinRM).
.EXAMPLE
  .\Get-TillDevice.ps1 -ClassName UPOS_Scanner
.EXAMPLE
  .\Get-TillDevice.ps1 -ClassName UPOS_Scanner -DeviceID SCANNER1
.EXAMPLE
  .\Get-TillDevice.ps1 -ComputerName (Get-Content tills.txt) |
    Export-Csv -NoTypeInformation -Encoding UTF8 devices.csv
.NOTES
  A till that does not answer is an error of its own and does not end the others. With -DeviceID the
  service is asked for that device alone. Name the encoding of every file: without it Windows
  PowerShell writes ASCII or UTF-16, whatever the command. Written by the cmdlets' documentation; not
  yet run on a Windows.
#>
[CmdletBinding()]
param(
    [string[]] $ComputerName,
    [string] $ClassName = 'UPOS_LogicalDevice',
    [string] $DeviceID,
    [int] $OperationTimeoutSec = 30
)

$query = @{ OperationTimeoutSec = $OperationTimeoutSec }
if ($DeviceID) {
    $query.InputObject = New-CimInstance -Namespace root/cimv2 -ClassName $ClassName `
        -Property @{ DeviceID = $DeviceID } -Key DeviceID -ClientOnly
} else {
    $query.Namespace = 'root/cimv2'
    $query.ClassName = $ClassName
}
$columns = 'PSComputerName', 'DeviceID', 'DeviceCategory', 'ManufacturerName', 'ModelName',
    'SerialNumber', 'FirmwareRevision', 'HoursPoweredCount', 'CommunicationErrorCount'

if (-not $ComputerName) {
    Get-CimInstance @query | Select-Object -Property $columns
    return
}
$sessions = New-CimSession -ComputerName $ComputerName -OperationTimeoutSec $OperationTimeoutSec
try {
    Get-CimInstance -CimSession $sessions @query | Select-Object -Property $columns
} finally {
    $sessions | Remove-CimSession
}
