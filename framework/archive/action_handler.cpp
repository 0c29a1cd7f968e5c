#include "archive/action_handler.h"

Action_Handler::~Action_Handler() = default;

bool Action_Handler::pre_action()
{
  return true;
}

int Action_Handler::wait_pre_action(const ACE_Time_Value*)
{
  return 0;
}

int Action_Handler::terminate_pre_action()
{
  return 0;
}

bool Action_Handler::post_action()
{
  return true;
}

int Action_Handler::wait_post_action(const ACE_Time_Value*)
{
  return 0;
}

int Action_Handler::terminate_post_action()
{
  return 0;
}

bool Action_Handler::pre_snapshot_action()
{
  return true;
}

int Action_Handler::wait_pre_snapshot_action(const ACE_Time_Value*)
{
  return 0;
}

int Action_Handler::terminate_pre_snapshot_action()
{
  return 0;
}

bool Action_Handler::post_snapshot_action()
{
  return true;
}

int Action_Handler::wait_post_snapshot_action(const ACE_Time_Value*)
{
  return 0;
}

int Action_Handler::terminate_post_snapshot_action()
{
  return 0;
}
