-- What wixl has no elements for, or sets otherwise: one statement a line, run by scripts/package on the finished
-- package. @VERSION@ stands for the version of the programs, @PACKAGE_VERSION@ for that of the package.

-- Programs with a version replace older ones; a hash is for files without.
UPDATE `File` SET `Version` = '@VERSION@.0', `Language` = '1033'
DELETE FROM `MsiFileHash`

-- An older version, or another build of the same, is removed first, and its choice of features kept (1, 256, 512).
INSERT INTO `Upgrade` (`UpgradeCode`, `VersionMin`, `VersionMax`, `Attributes`, `ActionProperty`) VALUES ('{6F4B5C52-3F0A-4E58-9B1C-0E2D1B7F9A34}', '0.0.0', '@PACKAGE_VERSION@', 769, 'OLDERVERSION')
INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) VALUES ('RemoveExistingProducts', 1501)
UPDATE `Property` SET `Value` = 'OLDERVERSION;NEWERVERSION;VELTRACNG' WHERE `Property` = 'SecureCustomProperties'
INSERT INTO `CustomAction` (`Action`, `Type`, `Target`) VALUES ('RefuseDowngrade', 19, 'A newer version of Veltra CSP is installed. Remove it first.')

-- Folders that the package made go with it, as far as they are empty.
INSERT INTO `CreateFolder` (`Directory_`, `Component_`) VALUES ('MakerFolder', 'Tool')
INSERT INTO `CreateFolder` (`Directory_`, `Component_`) VALUES ('INSTALLFOLDER', 'Tool')
INSERT INTO `CreateFolder` (`Directory_`, `Component_`) VALUES ('DeviceFolder', 'CertificateFolder')

-- Who has the software token keeps it: not every Windows Installer takes the choice of features over to a new version.
CREATE TABLE `Condition` (`Feature_` CHAR(38) NOT NULL, `Level` INT NOT NULL, `Condition` CHAR(255) PRIMARY KEY `Feature_`, `Level`)
INSERT INTO `Condition` (`Feature_`, `Level`, `Condition`) VALUES ('SoftwareToken', 1, 'SOFTWARETOKENPRESENT')

-- The token maker's library is never replaced by the software token, nor removed with it.
CREATE TABLE `DrLocator` (`Signature_` CHAR(72) NOT NULL, `Parent` CHAR(72), `Path` CHAR(255), `Depth` INT PRIMARY KEY `Signature_`, `Parent`, `Path`)
INSERT INTO `Signature` (`Signature`, `FileName`) VALUES ('DeviceLibrary64', 'VeltraDSCLibrary.dll')
INSERT INTO `Signature` (`Signature`, `FileName`) VALUES ('DeviceLibrary32', 'VeltraDSCLibrary.dll')
INSERT INTO `DrLocator` (`Signature_`, `Path`, `Depth`) VALUES ('DeviceLibrary64', '[System64Folder]', 0)
INSERT INTO `DrLocator` (`Signature_`, `Path`, `Depth`) VALUES ('DeviceLibrary32', '[SystemFolder]', 0)
INSERT INTO `AppSearch` (`Property`, `Signature_`) VALUES ('DEVICELIBRARY64', 'DeviceLibrary64')
INSERT INTO `AppSearch` (`Property`, `Signature_`) VALUES ('DEVICELIBRARY32', 'DeviceLibrary32')
INSERT INTO `CustomAction` (`Action`, `Type`, `Target`) VALUES ('RefuseSoftwareToken', 19, 'The system folder has a VeltraDSCLibrary.dll that this package did not install. The software token cannot be installed beside it.')
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('RefuseSoftwareToken', '&SoftwareToken=3 AND (DEVICELIBRARY64 OR DEVICELIBRARY32) AND NOT SOFTWARETOKENPRESENT', 1001)

-- The key storage provider. Programs in the system's folder (34), run by the installation's service (1024, 2048); 64
-- lets it go on after a failure, 256 is for the way back after a failure of something else.
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('RegisterCng', 3106, 'System64Folder', '"[System64Folder]regsvr32.exe" /s "[System64Folder]VeltraCSP.dll"')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('RegisterCngOptional', 3170, 'System64Folder', '"[System64Folder]regsvr32.exe" /s "[System64Folder]VeltraCSP.dll"')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('UndoRegisterCng', 3426, 'System64Folder', '"[System64Folder]regsvr32.exe" /u /s "[System64Folder]VeltraCSP.dll"')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('UnregisterCng', 3170, 'System64Folder', '"[System64Folder]regsvr32.exe" /u /s "[System64Folder]VeltraCSP.dll"')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('UndoUnregisterCng', 3426, 'System64Folder', '"[System64Folder]regsvr32.exe" /s "[System64Folder]VeltraCSP.dll"')
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('UndoUnregisterCng', '$Provider64=2', 2601)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('UnregisterCng', '$Provider64=2', 2602)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('UndoRegisterCng', '$Provider64=3', 5001)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('RegisterCng', '$Provider64=3 AND VELTRACNG<>"optional"', 5002)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('RegisterCngOptional', '$Provider64=3 AND VELTRACNG="optional"', 5003)
