#pragma once

// Identifiers of the resources. Included by the resource script too: preprocessor lines only.
#define IDD_PASSWORD 101
#define IDI_VELTRA 102
#define IDC_PIN 1001
#define IDC_DIALOG_ICON 1002
