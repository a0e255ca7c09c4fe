<#
.SYNOPSIS
  Lists point-of-service devices, of this till or of many, through CIM sessions (WinRM).
.EXAMPLE
  .\Get-TillDevice.ps1 -ClassName UPOS_Scanner
.EXAMPLE
  .\Get-TillDevice.ps1 -ComputerName (Get-Content tills.txt) | Export-Csv devices.csv
.NOTES
  A till that does not answer is an error of its own and does not end the others. Written by the
  cmdlets' documentation; not yet run on a Windows.
#>
[CmdletBinding()]
param(
    [string[]] $ComputerName,
    [string] $ClassName = 'UPOS_LogicalDevice',
    [int] $OperationTimeoutSec = 30
)

$query = @{ Namespace = 'root/cimv2'; ClassName = $ClassName; OperationTimeoutSec = $OperationTimeoutSec }
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
